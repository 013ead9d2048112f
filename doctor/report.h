// What the doctor found, check by check: as text for a reader, each line as soon as it is known, or
// as JSON to attach to a report.

#pragma once

#include <QJsonObject>
#include <QList>
#include <QStringList>

// A warning may keep a client from working; a fault does.
enum class Outcome { Ok, Warning, Fault };

// Something that may be so, what it would mean, and what to do about it (nothing for Ok).
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
    // Aloud, it prints each check to standard output when it is added, quoted lines indented
    // below it. What came from the environment cannot control a terminal or flood it.
    explicit Report(bool isAloud) : aloud(isAloud) { }

    // Adds the first case that holds as the check of this name, a word; false when none does.
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
