// What the doctor found, check by check: as text, each line as soon as it is known, or as JSON to
// attach to a report.

#pragma once

#include <QJsonObject>
#include <QList>
#include <QStringList>

// A warning may keep a client from working; a fault does.
enum class Outcome { Ok, Warning, Fault };

// Something that may be true, what it would mean, and what to do about it (nothing for Ok).
struct Case
{
    bool holds;
    Outcome outcome;
    QString finding; // a sentence or two
    QString advice = {};
    QStringList quoted = {}; // lines of another program's output
};

class Report
{
public:
    // If isAloud, prints each check to standard output as it is added, with quoted lines indented
    // below. What came from the environment can neither control nor flood a terminal.
    explicit Report(bool isAloud) : aloud(isAloud) { }

    // Adds the first case that holds, under this name, which is one word; false when none holds.
    bool judge(const QString &name, std::initializer_list<Case> cases);

    [[nodiscard]] bool hasFault() const { return count(Outcome::Fault) != 0; }

    // How many faults and warnings there are, as a sentence.
    [[nodiscard]] QString summary() const;

    // The given members with "checks", "warnings" and "faults" added.
    [[nodiscard]] QJsonObject json(QJsonObject members) const;

private:
    [[nodiscard]] qsizetype count(Outcome outcome) const;

    bool aloud;
    QList<std::pair<QString, Case>> checks;
};
