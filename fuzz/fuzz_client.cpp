// What a client may send: any bytes, in two pieces. Every request is answered, once.

#include "captured_output.h"
#include "dispatcher.h"
#include "input.h"

#include <QJsonDocument>

#include <cstdlib>
#include <cstring>

using namespace Qt::StringLiterals;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    // The first byte says where the input is cut, as reads cut it. There is no catalogue here, so
    // that no tool is carried out.
    const QByteArrayView input(data + 1, static_cast<qsizetype>(size) - 1);
    const qsizetype cut = input.size() * data[0] / 256;
    RequestQueue queue;
    LineBuffer buffer;
    for (const QByteArrayView piece : { input.first(cut), input.sliced(cut), { "\n", 1 } }) {
        std::memcpy(buffer.space(piece.size()).data(), piece.data(),
                    static_cast<size_t>(piece.size()));
        buffer.added(piece.size());
        receiveLines(buffer, queue);
    }
    queue.append({});
    while (const std::optional<Request> request = queue.take())
        handle(*request);

    // As many answers as lines that are a request or no message at all.
    qsizetype expected = 0;
    for (QByteArray line : input.toByteArray().split('\n')) {
        line.chop(line.endsWith('\r') ? 1 : 0);
        const QJsonDocument document = QJsonDocument::fromJson(line);
        expected
                += !line.isEmpty() && (!document.isObject() || document.object().contains("id"_L1));
    }
    if (writtenLines().size() != expected)
        std::abort();
    return 0;
}
