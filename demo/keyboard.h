// A US keyboard: which keys type a character, and the keys that have names.

#pragma once

#include <QString>

#include <optional>

struct Key
{
    QString code; // as the virtual machine's keyboard calls it
    bool shifted = false;
};

// Nothing where that keyboard lacks the character.
std::optional<Key> keyTyping(QChar character);

// A single character, or a name (enter, f1); nothing where there is no such key.
std::optional<Key> keyNamed(const QString &name);

// ctrl, shift, alt or meta; nothing for any other.
std::optional<QString> modifierCode(const QString &name);
