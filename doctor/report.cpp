#include "report.h"

#include <QJsonArray>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype MaxTextLength = 1'000; // a variable may hold megabytes

QString outcomeName(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Ok:
        return u"ok"_s;
    case Outcome::Warning:
        return u"warning"_s;
    case Outcome::Fault:
        break;
    }
    return u"fault"_s;
}

// Paths and other programs' words may hold anything, escape sequences included.
QString printable(const QString &text)
{
    QString result;
    const QList<uint> characters = text.left(MaxTextLength).toUcs4();
    for (const char32_t character : characters)
        result += QChar::isPrint(character) ? QString::fromUcs4(&character, 1) : u"?"_s;
    return text.size() > MaxTextLength ? result + u"..."_s : result;
}

QString counted(qsizetype count, const QString &what)
{
    return QString::number(count) + u' ' + what + (count == 1 ? u""_s : u"s"_s);
}

} // namespace

void Report::ok(const QString &name, const QString &finding)
{
    checks += Check { name, Outcome::Ok, finding, {}, {} };
}

void Report::warn(const QString &name, const QString &finding, const QString &advice)
{
    checks += Check { name, Outcome::Warning, finding, advice, {} };
}

void Report::fault(const QString &name, const QString &finding, const QString &advice,
                   const QStringList &quoted)
{
    checks += Check { name, Outcome::Fault, finding, advice, quoted };
}

bool Report::hasFault() const { return count(Outcome::Fault) != 0; }

qsizetype Report::count(Outcome outcome) const
{
    return std::count_if(checks.begin(), checks.end(),
                         [=](const Check &check) { return check.outcome == outcome; });
}

QString Report::text() const
{
    QString text;
    for (const Check &check : checks) {
        text += outcomeName(check.outcome).leftJustified(8) + check.name.leftJustified(12)
                + printable(check.finding);
        if (!check.advice.isEmpty())
            text += u" -> "_s + printable(check.advice);
        text += u'\n';
        for (const QString &line : check.quoted)
            text += u"          | "_s + printable(line) + u'\n';
    }
    return text + counted(count(Outcome::Fault), u"fault"_s) + u", "_s
           + counted(count(Outcome::Warning), u"warning"_s) + u".\n"_s;
}

QJsonObject Report::json(QJsonObject members) const
{
    QJsonArray array;
    for (const Check &check : checks) {
        QJsonObject object { { u"name"_s, check.name },
                             { u"outcome"_s, outcomeName(check.outcome) },
                             { u"finding"_s, check.finding } };
        if (!check.advice.isEmpty())
            object["advice"_L1] = check.advice;
        if (!check.quoted.isEmpty())
            object["quoted"_L1] = QJsonArray::fromStringList(check.quoted);
        array += object;
    }
    members["checks"_L1] = array;
    members["faults"_L1] = count(Outcome::Fault);
    members["warnings"_L1] = count(Outcome::Warning);
    return members;
}
