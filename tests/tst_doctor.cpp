// The doctor beside a server and an application in prepared situations: what it finds, and that it
// leaves everything as it was.

#include "harness.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

// Lists are separated by blanks.
struct Situation
{
    const char *name;
    const char *prepare; // commands of sh, in the installation's folder
    const char *variables; // NAME=VALUE, with @ for that folder
    const char *running; // FOLDER:TMPDIR of each application
    const char *option;
    const char *faults;
    const char *said;
};

constexpr auto Here = ".:tmp";
constexpr auto Launch = "--launch";
constexpr auto LeaveSocket = "TMPDIR=$PWD/tmp ./orrery >out & until grep -q listening out; "
                             "do sleep 0.01; done; kill $!; wait $! || true";

constexpr Situation situations[] {
    { "nothing runs", "", "", "", "", "", "does not run" },
    { "all well", "", "", Here, "", "", "/orrery: trusted" },
    { "runs twice", "", "", ".:tmp .:other", "", "app-tmpdir", "runs 2 times" },
    { "other TMPDIR", "", "", ".:other", "", "app-tmpdir socket status", "cannot meet" },
    { "linked TMPDIR", "ln -s tmp link", "", ".:link", "", "", "the same temporary folder" },
    { "another one", "", "", "other:tmp", "", "holder", "other/orrery, not" },
    { "a socket left", LeaveSocket, "", "", "", "", "Nobody answers" },
    { "a plain file", "touch tmp/orrery-control-`id -u`", "", "", "", "socket", "is no socket" },
    { "no application", "rm orrery", "", "", "", "application", "There is no" },
    { "no server", "rm orrery-mcp", "", "", "", "server", "There is no" },
    { "not executable", "chmod -x orrery", "", "", Launch, "application", "Nothing was launched" },
    { "a script", "cp fails orrery", "", "", "", "", "is a script" },
    { "dies at once", "cp fails orrery", "", "", Launch, "launch", "with exit status 3 when" },
    { "its last words", "cp fails orrery", "", "", Launch, "launch", "| no ?[31mdisplay" },
    { "dies when greeted", R"(echo '[{"exit":1}]' >hello.json)", "", "", Launch, "launch",
      "it stayed for" },
    { "refuses", "cp refusal hello.json", "", Here, Launch, "call", "Orrery error [no]" },
    { "server dies", "cp fails orrery-mcp", "", "", "", "initialize", "exit status 3: no" },
    { "TMPDIR nowhere", "", "TMPDIR=/no\033where", "", "", "tmpdir", "no folder" },
    { "relative TMPDIR", "", "TMPDIR=.", "", "", "", "relative to wherever" },
    { "long TMPDIR", "mkdir -p $PWD$PWD$PWD$PWD/tmp", "TMPDIR=@@@@/tmp", "", "", "tmpdir",
      "too long" },
    { "a display", "ln -s tmp/orrery-control-`id -u` wayland",
      "WAYLAND_DISPLAY=@/wayland DISPLAY=:77", Here, "", "", "ok      display" },
    { "no display", "", "WAYLAND_DISPLAY=@/no DISPLAY=:77", "", "", "", "X77 is no socket). ->" },
    { "a sandbox", "", "SNAP=/snap/x", "", "", "", "SNAP=/snap/x" },
    { "cookies", "", "XAUTHORITY=@/fails", "", "", "", "ok      variables" },
    { "empty XAUTHORITY", "", "XAUTHORITY=", "", "", "", "nothing: XAUTHORITY" },
    { "an AppImage", "", "APPDIR=@ APPIMAGE=@/fails", "", "", "", "/fails, which is what gets" },
    { "another's AppImage", "", "APPDIR=/usr APPIMAGE=@/fails", "", "", "", "ignored" },
    { "a lost AppImage", "", "APPDIR=@ APPIMAGE=@/no", "", "", "", "image file is not there" },
};

QStringList list(const char *text)
{
    return QString::fromLatin1(text).split(u' ', Qt::SkipEmptyParts);
}

void install(Installation &home)
{
    QVERIFY(QDir(home.folder()).mkdir(u"other"_s));
    QVERIFY(QFile::copy(QStringLiteral(DOCTOR_PATH), home.path(u"orrery-mcp-doctor"_s)));
    QVERIFY(QFile::copy(QStringLiteral(FAKE_PATH), home.path(u"other/orrery"_s)));
    home.write(u"fails"_s, "#!/bin/sh\nseq 12 >&2; echo 'no \033[31mdisplay' >&2; exit 3\n");
    // No raw string, over which moc would lose the class below.
    home.write(u"refusal"_s,
               "[{\"send\":\"{\\\"id\\\":$id,\\\"error\\\":{\\\"code\\\":\\\"no\\\"}}\\n\"}]");
}

QString examine(const Installation &home, const QStringList &options, int *exitStatus)
{
    Child doctor(home.path(u"orrery-mcp-doctor"_s), options, home.environment);
    doctor.process.start();
    *exitStatus = doctor.process.waitForFinished(PatienceMs) ? doctor.process.exitCode() : -1;
    return QString::fromUtf8(doctor.process.readAllStandardOutput());
}

// The checks of a text or a JSON report as "OUTCOME NAME".
QStringList checksIn(const QString &report)
{
    QStringList checks;
    for (const QJsonValue &check : parsed(report.toUtf8())["checks"_L1].toArray())
        checks += check["outcome"_L1].toString() + u' ' + check["name"_L1].toString();
    static const QRegularExpression line(u"^((?:ok|warning|fault) +\\S+)"_s,
                                         QRegularExpression::MultilineOption);
    for (const QRegularExpressionMatch &match : line.globalMatch(report))
        checks += match.captured().simplified();
    return checks;
}

} // namespace

class tst_doctor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void findsWhatIsWrong_data()
    {
        QTest::addColumn<int>("index");
        for (int i = 0; i < int(std::size(situations)); ++i)
            QTest::newRow(situations[i].name) << i;
    }

    void findsWhatIsWrong()
    {
        QFETCH(int, index);
        const Situation &situation = situations[index];
        Installation home;
        install(home);
        QProcess prepare;
        prepare.setWorkingDirectory(home.folder());
        prepare.start(u"sh"_s, { u"-ec"_s, QString::fromLatin1(situation.prepare) });
        QVERIFY(prepare.waitForFinished(PatienceMs) && prepare.exitCode() == 0);
        std::list<Application> applications;
        const QProcessEnvironment environment = home.environment;
        for (const QString &application : list(situation.running)) {
            const QStringList where = application.split(u':');
            home.environment.insert(u"TMPDIR"_s, home.path(where[1]));
            applications.emplace_back(home, home.path(where[0] + "/orrery"_L1));
            QVERIFY(applications.back().listening);
        }
        home.environment = environment;
        for (const QString &variable : list(situation.variables))
            home.environment.insert(variable.section(u'=', 0, 0),
                                    variable.section(u'=', 1).replace(u'@', home.folder()));
        QFile::remove(home.path(u"starts"_s));

        int exitStatus = -1;
        const QString text = examine(home, list(situation.option), &exitStatus);
        QVERIFY2(text.contains(QLatin1StringView(situation.said)), qPrintable(text));
        QVERIFY(std::all_of(text.begin(), text.end(),
                            [](QChar c) { return c.isPrint() || c == u'\n'; }));
        if (situation.option == Launch && applications.empty())
            QFile::remove(home.pipePath()); // of an application that died
        const QString json = examine(home, list(situation.option) << u"--json"_s, &exitStatus);
        QCOMPARE(checksIn(json), checksIn(text));
        const qsizetype warnings = checksIn(json).filter(u"warning"_s).size();
        QCOMPARE(parsed(json.toUtf8())["warnings"_L1].toInt(), warnings);
        QVERIFY(text.contains(u" %1 warning"_s.arg(warnings)));
        const QStringList faults = checksIn(json).filter(u"fault"_s);
        QCOMPARE(faults.join(u' ').remove(u"fault "_s), QLatin1StringView(situation.faults));
        QCOMPARE(exitStatus, faults.isEmpty() ? 0 : 1);
        // It started nothing, and said nothing to anybody.
        const bool traces = QFile::exists(home.path(u"starts"_s)) || !home.received().isEmpty();
        QVERIFY(situation.option == Launch || !traces);
        QVERIFY(!QFile::exists(home.path(u"other/received"_s)));
    }

    void leavesVariablesBehind()
    {
        Installation home;
        install(home);
        home.environment.insert(u"APPDIR"_s, u"/usr"_s);
        const Application app(home);
        int exitStatus = -1;
        const QString text = examine(home, { u"--bare"_s }, &exitStatus);
        const QString since = text.section(u" since "_s, 1).left(19);
        const QDateTime start = QDateTime::fromString(since, Qt::ISODate);
        QVERIFY2(qAbs(start.secsTo(QDateTime::currentDateTime())) < 60, qPrintable(since));
        for (const char *said : { "TMPDIR is not set", "Neither", "no AppImage", "cannot meet" })
            QVERIFY2(text.contains(QLatin1StringView(said)), qPrintable(text));
        QCOMPARE(exitStatus, 1);
    }

    void launchesWhenTold()
    {
        Installation home;
        install(home);
        int exitStatus = -1;
        const QStringList checks = checksIn(examine(home, { u"--launch"_s }, &exitStatus));
        QCOMPARE(checks.last(2), (QStringList { u"ok launch"_s, u"ok call"_s }));
        QCOMPARE(exitStatus, 0);
        QCOMPARE(home.read(u"starts"_s), "x");
        QCOMPARE(home.applications().size(), 1);
        QCOMPARE(home.received().back()["method"_L1], QJsonValue(u"list_vms"_s));
    }

    void checksNothingWhenAskedForHelp()
    {
        Installation home;
        install(home);
        for (const QString &option : { u"--help"_s, u"--no-such"_s, u"operand"_s }) {
            int exitStatus = -1;
            const QString text = examine(home, { option }, &exitStatus);
            QCOMPARE(text.contains("--bare"_L1), option == "--help"_L1);
            QCOMPARE(exitStatus, 2);
        }
    }
};

QTEST_GUILESS_MAIN(tst_doctor)
#include "tst_doctor.moc"
