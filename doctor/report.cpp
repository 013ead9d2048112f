#include "report.h"

#include <QJsonArray>

#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype MaxTextLength = 1'000; // a variable may hold megabytes

QString outcomeName(Outcome outcome)
{
    return outcome == Outcome::Ok        ? u"ok"_s
           : outcome == Outcome::Warning ? u"warning"_s
                                         : u"fault"_s;
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

void print(const QString &name, const Case &check)
{
    QString text = outcomeName(check.outcome).leftJustified(8) + name.leftJustified(12)
                   + printable(check.finding);
    if (!check.advice.isEmpty())
        text += u" -> "_s + printable(check.advice);
    text += u'\n';
    for (const QString &line : check.quoted)
        text += u"          | "_s + printable(line) + u'\n';
    std::fputs(text.toUtf8().constData(), stdout);
    std::fflush(stdout);
}

QString counted(qsizetype count, const QString &what)
{
    return QString::number(count) + u' ' + what + (count == 1 ? u""_s : u"s"_s);
}

} // namespace

bool Report::judge(const QString &name, std::initializer_list<Case> cases)
{
    const auto *first = std::find_if(cases.begin(), cases.end(),
                                     [](const Case &candidate) { return candidate.holds; });
    if (first == cases.end())
        return false;
    checks.emplace_back(name, *first);
    if (aloud)
        print(name, *first);
    return true;
}

qsizetype Report::count(Outcome outcome) const
{
    return std::count_if(checks.begin(), checks.end(),
                         [=](const auto &check) { return check.second.outcome == outcome; });
}

QString Report::summary() const
{
    return counted(count(Outcome::Fault), u"fault"_s) + u", "_s
           + counted(count(Outcome::Warning), u"warning"_s) + u'.';
}

QJsonObject Report::json(QJsonObject members) const
{
    QJsonArray array;
    for (const auto &[name, check] : checks) {
        QJsonObject object { { u"name"_s, name },
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
