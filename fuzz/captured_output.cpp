#include "captured_output.h"

#include "output.h"

#include <cstdlib>
#include <utility>

namespace {

QByteArray g_written;

} // namespace

void writeMessage(const JsonWriter &lines, qint64 *)
{
    for (const QByteArrayView piece : lines.pieces())
        g_written.append(piece);
}

QByteArrayList writtenLines()
{
    QByteArrayList lines = std::exchange(g_written, {}).split('\n');
    if (!lines.takeLast().isEmpty())
        std::abort(); // half a line
    for (const QByteArray &line : std::as_const(lines)) {
        if (!line.startsWith('{') || !line.endsWith('}'))
            std::abort();
    }
    return lines;
}
