// What an application may send while a call waits: any bytes, in two pieces. Whatever is no answer
// is an event, and the client gets one whole answer at most.

#include "server_under_test.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArrayView input(data + 1, static_cast<qsizetype>(size) - 1);
    const qsizetype cut = input.size() * data[0] / 256;
    QByteArray buffer;
    qsizetype searched = 0;
    std::optional<QJsonObject> response;
    for (const QByteArrayView piece : { input.first(cut), input.sliced(cut) }) {
        buffer.append(piece);
        if (!response && !takeResponse(buffer, searched, 1, &response))
            std::abort(); // nothing here is too long
    }
    if (response)
        replyResponse(7, *response);

    qsizetype answers = 0;
    const QList<QJsonObject> messages = writtenMessages();
    for (const QJsonObject &message : messages) {
        const bool isEvent = message["method"_L1] == "notifications/message"_L1;
        const bool isAnswer = message["id"_L1] == 7 && message["result"_L1]["content"_L1].isArray();
        if (isEvent == isAnswer)
            std::abort();
        answers += isAnswer;
    }
    if (answers != (response ? 1 : 0))
        std::abort();
    return 0;
}
