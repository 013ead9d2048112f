#include "json_writer.h"

#include "json_escape.h"
#include "json_input.h"
#include "memory.h"
#include "server_limits.h"

#include <QCborArray>
#include <QCborMap>
#include <QJsonArray>
#include <QJsonObject>
#include <QLocale>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <type_traits>

namespace {

constexpr qsizetype FirstBytes = 128;
constexpr qsizetype IndentBytes = 4;
constexpr size_t KnownKeys = 64;
constexpr size_t KeysPerLevel = 16; // so that an object and those in it seldom meet
constexpr qsizetype MaxKnownKeyBytes = 256;

} // namespace

void JsonWriter::keepKeys(bool isWanted)
{
    keepsKeys = isWanted;
    if (isWanted && knownKeys.empty())
        knownKeys.resize(KnownKeys);
}

void JsonWriter::makeRoom(qsizetype bytes)
{
    if (size + bytes > Limits::MaxMessageBytes) {
        tooLong = true;
        size = 0; // what is still written goes over what is of no use
    }
    if (size + bytes <= capacity)
        return;
    growBuffer(buffer, std::max(size + bytes, FirstBytes));
    capacity = buffer.size();
    place = buffer.data();
}

void JsonWriter::string(QStringView text) { quoted<Style::Compact>(text); }

void JsonWriter::integer(qint64 value)
{
    char *const out = room(20); // digits at most, with the sign
    size += std::to_chars(out, out + 20, value).ptr - out;
}

bool JsonWriter::isTooLong() const
{
    return tooLong || size + longString.size() > Limits::MaxMessageBytes;
}

void JsonWriter::clear()
{
    size = 0;
    longString = {};
    longStringAt = 0;
    tooLong = false;
}

// The inside of a string. In pieces, so that room for the worst is made of a piece only.
template <JsonWriter::Style style> void JsonWriter::escaped(QStringView text)
{
    constexpr bool Nested = style == Style::Reader;
    constexpr qsizetype PieceUnits = 4096;
    const char16_t *in = text.utf16();
    const char16_t *const end = in + text.size();
    while (in != end) {
        const char16_t *const pieceEnd = in + std::min<qsizetype>(PieceUnits, end - in);
        char *out = room((pieceEnd - in) * MaxEscapedBytes);
        const char *const begin = out;
        putText<Nested>(in, pieceEnd, end, out);
        size += out - begin;
    }
}

template <JsonWriter::Style style> constexpr QByteArrayView JsonWriter::quote()
{
    return style == Style::Reader ? "\\\"" : "\"";
}

template <JsonWriter::Style style> void JsonWriter::quoted(QStringView text)
{
    put(quote<style>());
    if (!longString.isEmpty() && text == Placeholder)
        longStringAt = size;
    else
        escaped<style>(text);
    put(quote<style>());
}

template <JsonWriter::Style style> void JsonWriter::newLine(int level)
{
    if (style == Style::Compact)
        return;
    const qsizetype blanks = level * IndentBytes;
    char *const out = room(2 + blanks);
    out[0] = '\\';
    out[1] = 'n';
    std::memset(out + 2, ' ', static_cast<size_t>(blanks));
    size += 2 + blanks;
}

// Writes a key and its colon. The objects of an array mostly have the same keys, so that one which
// is in the place where it was before need not be made into text again.
template <JsonWriter::Style style> void JsonWriter::memberKey(const QCborValue &name, size_t slot)
{
    KnownKey *const known = !keepsKeys ? nullptr : &knownKeys[slot % KnownKeys];
    if (known != nullptr && known->style == style && known->name == name)
        return put(known->text);
    const qsizetype start = size;
    quoted<style>(name.toString());
    put(style == Style::Reader ? ": " : ":");
    if (known != nullptr && !tooLong && size - start <= MaxKnownKeyBytes)
        *known = { name, style, bytes().sliced(start).toByteArray() };
}

template <JsonWriter::Style style, typename Container>
void JsonWriter::container(const Container &members, int level, QLatin1StringView except)
{
    constexpr bool IsMap = std::is_same_v<Container, QCborMap>;
    put(IsMap ? '{' : '[');
    bool first = true;
    size_t slot = static_cast<size_t>(level) * KeysPerLevel;
    for (auto member = members.constBegin(); member != members.constEnd() && !tooLong; ++member) {
        if constexpr (IsMap) {
            if (!except.isEmpty() && member.key().toString() == except)
                continue;
        }
        if (!first)
            put(',');
        first = false;
        newLine<style>(level + 1);
        if constexpr (IsMap) {
            memberKey<style>(member.key(), slot++);
            element<style>(member.value(), level + 1);
        } else {
            element<style>(*member, level + 1);
        }
    }
    newLine<style>(level);
    put(IsMap ? '}' : ']');
}

template <JsonWriter::Style style> void JsonWriter::element(const QCborValue &value, int level)
{
    switch (value.type()) {
    case QCborValue::String:
        return quoted<style>(value.toString());
    case QCborValue::Integer:
        return integer(value.toInteger());
    case QCborValue::Double: {
        const double number = value.toDouble();
        if (!std::isfinite(number))
            return put("null");
        return put(QByteArray::number(number, 'g', QLocale::FloatingPointShortest));
    }
    case QCborValue::True:
        return put("true");
    case QCborValue::False:
        return put("false");
    case QCborValue::Array:
        return container<style>(value.toArray(), level);
    case QCborValue::Map:
        return container<style>(value.toMap(), level);
    default:
        return put("null");
    }
}

void JsonWriter::value(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::String:
        return string(value.toString());
    case QJsonValue::Object:
        return container<Style::Compact>(QCborMap::fromJsonObject(value.toObject()), 0);
    default:
        // An array, because by itself a QJsonValue does not tell whether it holds 5 or 5.0.
        const QCborArray holder = QCborArray::fromJsonArray({ value });
        return element<Style::Compact>(holder.first(), 0);
    }
}

void JsonWriter::readerText(const QJsonValue &value, QLatin1StringView except)
{
    put('"');
    if (value.isObject())
        container<Style::Reader>(QCborMap::fromJsonObject(value.toObject()), 0, except);
    else
        container<Style::Reader>(QCborArray::fromJsonArray(value.toArray()), 0);
    put('"');
}
