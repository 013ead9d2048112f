// Writes JSON text (RFC 8259) in one pass: values that came from elsewhere are written byte for
// byte as QJsonDocument writes them, with the members of an object in its own order, which is that
// of the keys.

#pragma once

#include <QByteArray>
#include <QCborValue>
#include <QLatin1StringView>
#include <QStringView>

#include <array>
#include <cstring>
#include <vector>

class QJsonObject;
class QJsonValue;

// One or more lines of JSON text, being written. It has a limit: beyond that nothing more is
// written, and isTooLong() says so.
class JsonWriter
{
public:
    JsonWriter() = default;
    JsonWriter(JsonWriter &&) = default;
    JsonWriter &operator=(JsonWriter &&) = delete;

    // From here on, whether a repeated key is made into text only once. Only for values without
    // half a surrogate pair: Qt does not say whether that counts when strings are compared.
    void keepKeys(bool isWanted);

    // A string that is not copied: the caller keeps it until the text is sent. It is written once,
    // in the place of the string that is Placeholder, see Message.
    void setLongString(QByteArrayView text) { longString = text; }

    // Text of this program's own: JSON, or a part of it.
    void text(QByteArrayView json) { put(json); }

    void string(QStringView text);
    void integer(qint64 value);

    // Any value, compact. An undefined one is written as null; leave its member out.
    void value(const QJsonValue &value);

    // A string that holds an object or an array as text for a reader: indented by four blanks, a
    // member or an element per line. Without the member of the outermost object that is called
    // except.
    void readerText(const QJsonValue &value, QLatin1StringView except = {});

    // Whether the limit (Limits::MaxMessageBytes) was reached. If so, the text is of no use.
    [[nodiscard]] bool isTooLong() const;

    // Begins anew; the memory stays.
    void clear();

    // Whether the long string was written.
    [[nodiscard]] bool hasLongString() const { return longStringAt > 0; }

    // What was written, but for a long string.
    [[nodiscard]] QByteArrayView bytes() const { return { place, size }; }

    // All of it: up to the long string, that, and what follows.
    [[nodiscard]] std::array<QByteArrayView, 3> pieces() const
    {
        const QByteArrayView piece = hasLongString() ? longString : QByteArrayView();
        return { bytes().first(longStringAt), piece, bytes().sliced(longStringAt) };
    }

private:
    enum class Style { Compact, Reader };

    // A key as it was last written in its place.
    struct KnownKey
    {
        QCborValue name;
        Style style = Style::Compact;
        QByteArray text;
    };

    void makeRoom(qsizetype bytes);

    // A place for so many bytes more; the caller moves size.
    char *room(qsizetype bytes)
    {
        if (size + bytes > capacity)
            makeRoom(bytes);
        return place + size;
    }

    void put(char c)
    {
        *room(1) = c;
        ++size;
    }

    void put(QByteArrayView text)
    {
        std::memcpy(room(text.size()), text.data(), static_cast<size_t>(text.size()));
        size += text.size();
    }

    template <Style style> void escaped(QStringView text);
    template <Style style> static constexpr QByteArrayView quote();
    template <Style style> void quoted(QStringView text);
    template <Style style> void element(const QCborValue &value, int level);
    template <Style style, typename Container>
    void container(const Container &members, int level, QLatin1StringView except = {});
    template <Style style> void memberKey(const QCborValue &name, size_t slot);
    template <Style style> void newLine(int level);

    QByteArray buffer;
    char *place = nullptr; // of the buffer
    qsizetype capacity = 0;
    qsizetype size = 0; // bytes written
    QByteArrayView longString;
    qsizetype longStringAt = 0; // so many bytes are written before it; none while it is not written
    bool tooLong = false;
    std::vector<KnownKey> knownKeys; // none while none were to be kept
    bool keepsKeys = false;
};
