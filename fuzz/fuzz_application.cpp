// What an application may send while a call waits: any bytes, in two pieces. Whatever is no answer
// is an event, and the client gets one whole answer at most.

#include "captured_output.h"
#include "exchange.h"
#include "tools.h"

#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArrayView input(data + 1, static_cast<qsizetype>(size) - 1);
    const qsizetype cut = input.size() * data[0] / 256;
    LineBuffer buffer;
    PipeLines lines(buffer, 1);
    for (const QByteArrayView piece : { input.first(cut), input.sliced(cut) }) {
        std::memcpy(buffer.space(piece.size()).data(), piece.data(),
                    static_cast<size_t>(piece.size()));
        buffer.added(piece.size());
        if (!lines.answer)
            lines.take(nullptr);
        if (!lines.refusal.isEmpty())
            std::abort(); // nothing here is too long
    }
    if (lines.answer)
        replyAnswer(7, *lines.answer);

    qsizetype answers = 0;
    const QByteArrayList written = writtenLines();
    for (const QByteArray &line : written) {
        const bool isAnswer = line.startsWith(R"({"id":7,"jsonrpc":"2.0","result":{"content":[)");
        if (isAnswer == line.startsWith(R"({"jsonrpc":"2.0","method":"notifications/message",)"))
            std::abort();
        answers += isAnswer;
    }
    if (answers != (lines.answer ? 1 : 0))
        std::abort();
    return 0;
}
