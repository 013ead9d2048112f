// What the doctor found, check by check: as text for a reader, or as JSON to attach to a report.

#pragma once

#include <QJsonObject>
#include <QList>
#include <QStringList>

// A warning may keep a client from working; a fault does.
enum class Outcome { Ok, Warning, Fault };

struct Check
{
    QString name; // a word, unique to the subject
    Outcome outcome = Outcome::Ok;
    QString finding; // a sentence or two
    QString advice; // what to do about it; empty for Ok
    QStringList quoted; // lines of another program's output
};

class Report
{
public:
    void ok(const QString &name, const QString &finding);
    void warn(const QString &name, const QString &finding, const QString &advice);
    void fault(const QString &name, const QString &finding, const QString &advice,
               const QStringList &quoted = {});

    [[nodiscard]] bool hasFault() const;

    // A line a check, quoted lines indented below it, and a last line that counts. What came from
    // the environment cannot control a terminal or flood it.
    [[nodiscard]] QString text() const;

    // The given members with "checks", "warnings" and "faults" added.
    [[nodiscard]] QJsonObject json(QJsonObject members) const;

private:
    [[nodiscard]] qsizetype count(Outcome outcome) const;

    QList<Check> checks;
};
