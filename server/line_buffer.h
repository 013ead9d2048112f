// What has been read of a stream of lines: filled at its end, emptied line by line at its front.

#pragma once

#include <QByteArray>

#include <optional>
#include <span>

class LineBuffer
{
public:
    // All the place there is behind what was read, wanted bytes at least; added() says how many
    // came. Lines taken before are gone.
    std::span<char> space(qsizetype wanted);
    void added(qsizetype count) { end += count; }

    // The next whole line without its line feed; nothing while there is none. It stands until
    // space() or releaseTaken().
    std::optional<QByteArrayView> takeLine();

    // What came behind the last line that was taken.
    [[nodiscard]] QByteArrayView rest() const
    {
        return QByteArrayView(bytes).sliced(begin, end - begin);
    }

    // Gives back the memory of large lines that were taken, and keeps what is behind them.
    void releaseTaken()
    {
        // Only where most of it is to go: what is copied is then less than what goes.
        if (bytes.size() <= KeptBufferBytes || begin == 0 || end - begin > bytes.size() / 2)
            return;
        bytes = rest().toByteArray();
        end = bytes.size();
        begin = 0;
    }

private:
    static constexpr qsizetype KeptBufferBytes = 2 << 20; // a buffer of this size stays

    QByteArray bytes; // all of it is a place to write to; begin to end is what was read
    qsizetype begin = 0;
    qsizetype end = 0;
    qsizetype searched = 0; // so many bytes from begin on hold no line feed
};
