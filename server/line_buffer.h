// What has been read of a stream of lines: filled at its end, emptied line by line at its front.

#pragma once

#include <QByteArray>

#include <optional>

class LineBuffer
{
public:
    // A place for at least so many bytes behind what is there; added() says how many came. Lines
    // taken before are gone.
    char *space(qsizetype wanted);
    void added(qsizetype count) { end += count; }

    // The next whole line without its line feed; nothing while there is none. It stands until
    // space(), releaseTaken() or clear().
    std::optional<QByteArrayView> takeLine();

    // What came behind the last line feed.
    [[nodiscard]] QByteArrayView rest() const
    {
        return QByteArrayView(bytes).sliced(begin, end - begin);
    }

    // Gives back the memory of a large line that was taken, and keeps what is behind it.
    void releaseTaken();

    // Forgets everything, and gives the memory back.
    void clear();

private:
    void move(qsizetype capacity);

    QByteArray bytes; // all of it is a place to write to; begin to end is what was read
    qsizetype begin = 0;
    qsizetype end = 0;
    qsizetype searched = 0; // so many bytes from begin on hold no line feed
};
