#include "keyboard.h"

#include <QHash>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

namespace {

const QHash<QString, QString> codes {
    { u" "_s, u"spc"_s },           { u"\n"_s, u"ret"_s },         { u"\t"_s, u"tab"_s },
    { u"-"_s, u"minus"_s },         { u"="_s, u"equal"_s },        { u"["_s, u"bracket_left"_s },
    { u"]"_s, u"bracket_right"_s }, { u"\\"_s, u"backslash"_s },   { u";"_s, u"semicolon"_s },
    { u"'"_s, u"apostrophe"_s },    { u"`"_s, u"grave_accent"_s }, { u","_s, u"comma"_s },
    { u"."_s, u"dot"_s },           { u"/"_s, u"slash"_s },
};

const QHash<QString, QString> names {
    { u"enter"_s, u"ret"_s },
    { u"tab"_s, u"tab"_s },
    { u"escape"_s, u"esc"_s },
    { u"space"_s, u"spc"_s },
    { u"delete"_s, u"delete"_s },
    { u"insert"_s, u"insert"_s },
    { u"backspace"_s, u"backspace"_s },
    { u"up"_s, u"up"_s },
    { u"down"_s, u"down"_s },
    { u"left"_s, u"left"_s },
    { u"right"_s, u"right"_s },
    { u"home"_s, u"home"_s },
    { u"end"_s, u"end"_s },
    { u"pageup"_s, u"pgup"_s },
    { u"pagedown"_s, u"pgdn"_s },
};

constexpr QStringView Shifted = u"~!@#$%^&*()_+{}|:\"<>?";
constexpr QStringView Unshifted = u"`1234567890-=[]\\;',./";

} // namespace

std::optional<Key> keyTyping(QChar character)
{
    if (character.unicode() > 0x7e)
        return {};
    const qsizetype shifted = Shifted.indexOf(character);
    const QString bare = shifted < 0 ? QString(character.toLower()) : QString(Unshifted[shifted]);
    if (const auto found = codes.find(bare); found != codes.end())
        return Key { *found, shifted >= 0 };
    const char16_t code = bare[0].unicode();
    if ((code >= u'a' && code <= u'z') || (code >= u'0' && code <= u'9'))
        return Key { bare, shifted >= 0 || bare[0] != character };
    return {};
}

std::optional<Key> keyNamed(const QString &name)
{
    static const QRegularExpression functionKey(u"^f([1-9]|1[0-2])$"_s);
    if (const auto found = names.find(name); found != names.end())
        return Key { *found };
    if (functionKey.match(name).hasMatch())
        return Key { name };
    return name.size() == 1 ? keyTyping(name[0]) : std::nullopt;
}

std::optional<QString> modifierCode(const QString &name)
{
    static const QHash<QString, QString> all { { u"ctrl"_s, u"ctrl"_s },
                                               { u"shift"_s, u"shift"_s },
                                               { u"alt"_s, u"alt"_s },
                                               { u"meta"_s, u"meta_l"_s } };
    const auto found = all.find(name);
    return found == all.end() ? std::nullopt : std::optional(*found);
}
