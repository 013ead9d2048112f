#include "plain_string.h"

#include "vector_blocks.h"

#include <QCborStreamWriter>
#include <QCborValue>
#include <QIODevice>

namespace {

// Stands in for the file that a string would be written to in its CBOR form: a head, and its bytes
// as they lie in memory.
class StringTap : public QIODevice
{
public:
    explicit StringTap(const std::function<bool(QByteArrayView)> &visitor) : use(visitor)
    {
        open(QIODevice::WriteOnly | QIODevice::Unbuffered);
    }

    bool answer = false;

protected:
    qint64 readData(char *, qint64) override { return -1; }

    qint64 writeData(const char *data, qint64 length) override
    {
        const QByteArrayView bytes(data, length);
        if (stringLength < 0)
            stringLength = lengthIn(bytes);
        else if (length == stringLength)
            answer = use(bytes);
        return length;
    }

private:
    // RFC 8949, 3: the low five bits are the length, or tell that it follows, its high byte first.
    static qint64 lengthIn(QByteArrayView head)
    {
        qint64 length = head.front() & 0x1f;
        if (head.size() > 1)
            length = 0;
        for (const char byte : head.sliced(1))
            length = length << 8 | static_cast<uchar>(byte);
        return length;
    }

    const std::function<bool(QByteArrayView)> &use;
    qint64 stringLength = -1; // -1 before the head
};

using Octets = quint8 __attribute__((vector_size(BlockBytes)));

Octets smaller(Octets a, Octets b) { return a < b ? a : b; }

Octets larger(Octets a, Octets b) { return a > b ? a : b; }

} // namespace

bool isPlain(QByteArrayView text)
{
    // The largest distance above a blank, and the smallest to what is not plain, over all blocks:
    // that takes fewer instructions than to compare each.
    Octets fromBlank {}; // 0x5f at most within ASCII, wrapped around below
    Octets toSpecial = ~Octets {}; // 0 on one of three
    qsizetype at = 0;
    for (; at + BlockBytes <= text.size(); at += BlockBytes) {
        const auto block = loadBlock<Octets>(text.data() + at);
        fromBlank = larger(fromBlank, block - ' ');
        toSpecial = smaller(smaller(toSpecial, block ^ '"'), smaller(block ^ '\\', block ^ '?'));
    }
    bool isBad = any((fromBlank > 0x5f) | (toSpecial == 0));
    for (const signed char c : text.sliced(at)) // beyond ASCII it is negative
        isBad = isBad || c < ' ' || c == '"' || c == '\\' || c == '?';
    return !isBad;
}

bool visitBytes(const QCborValue &string, const std::function<bool(QByteArrayView)> &use)
{
    StringTap tap(use);
    QCborStreamWriter writer(&tap);
    string.toCbor(writer);
    return tap.answer;
}
