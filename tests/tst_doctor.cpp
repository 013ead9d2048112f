// The doctor beside a server and an application in prepared situations: what it finds, and that it
// leaves everything as it was.

#include "harness.h"

#include <QRegularExpression>

#include <algorithm>
#include <array>

namespace {

// The variables are separated by blanks, and so are the faults.
struct Situation
{
    const char *name;
    const char *prepare; // commands of sh, in the installation's folder
    const char *variables; // NAME=VALUE, with @ for that folder and ~ for 5,000 letters
    const char *option;
    const char *faults;
    const char *said;
    const char *through = ""; // what executes the doctor; where that is not permitted, it skips
};

// start TMPDIR PROGRAM [WRAPPER]; taken, where the doctor runs as nobody
constexpr auto Functions = R"(
start() {
    rm -f out; TMPDIR=$1 ${3-} $2 >out 2>&1 &
    until grep -q listening out; do kill -0 $!; sleep 0.01; done
}
taken() {
    start other ./orrery; start $tmp ./orrery; mv $pipe $tmp/orrery-control-65534
}
nobody='%1' tmp=$PWD/tmp pipe=$PWD/tmp/orrery-control-$(id -u)
)";
constexpr auto Nobody = "env -u TSAN_OPTIONS setpriv --reuid 65534 --regid 65534 --clear-groups";
constexpr auto FullFolder = "unshare -rm sh -c 'mount -t tmpfs -o nr_inodes=1 none tmp && "
                            "exec \"$0\" \"$@\"'";
constexpr auto Launch = "--launch";

constexpr Situation situations[] {
    { "nothing runs", "", "", "", "", "does not run" },
    { "all well", "start $tmp ./orrery", "", Launch, "", "runs already, and answered" },
    { "runs twice", "start $tmp ./orrery; start other ./orrery", "", "", "app-tmpdir",
      "runs 2 times" },
    { "stopped",
      "start $tmp ./orrery; kill -STOP $!; until grep -q '^State:.T' /proc/$!/status; do sleep "
      "0.01;"
      "done",
      "", "", "process", "is stopped" },
    { "other TMPDIR", "start other ./orrery", "", "", "app-tmpdir socket status", "cannot meet" },
    { "linked TMPDIR", "ln -s tmp link; start link ./orrery", "", "", "", "folder, link" },
    { "another one", "start $tmp other/orrery", "", "", "holder", "other/orrery, not" },
    { "another one, gone", "start $tmp other/orrery; rm other/orrery", "", "", "holder",
      "other/orrery, a file that is gone" },
    { "deleted", "start $tmp ./orrery; rm orrery", "", "", "application holder",
      "/orrery, a file that is gone" },
    { "takes nobody", R"(export FAKE_DEAF=1; start $tmp ./orrery; TMPDIR=$tmp; export TMPDIR
      echo '{"id":1,"method":"tools/call","params":{"name":"app_status"}}' | ./orrery-mcp)",
      "", "", "holder status", "takes no connections" },
    { "a socket left", "start $tmp ./orrery; kill $!; wait $! || true", "", "", "",
      "Nobody answers" },
    { "a plain file", "touch $pipe", "", "", "socket", "is no socket" },
    { "a dangling link", "ln -s nowhere $pipe", "", "", "socket", "is no socket" },
    { "another's socket", "taken", "", "", "socket", "another user, root (0)", Nobody },
    { "another's open socket", "taken; chmod 777 $tmp/*", "", "", "holder socket",
      "(orrery) of another user, root (0)", Nobody },
    { "another's Orrery", "start $tmp ./orrery", "", "", "",
      "not run as you, nobody (65534), but as ", Nobody },
    { "nobody's Orrery", "start $tmp ./orrery \"$nobody\"", "", "", "", "but as nobody (65534)",
      "setpriv --reuid 0" },
    { "nobody's ended Orrery",
      "(start $tmp ./orrery \"$nobody\"; kill $!; echo $! >pid; exec sleep 9) &"
      "until test -s pid && ! test -e /proc/$(cat pid)/exe; do sleep 0.01; done; rm $tmp/*",
      "", "", "", "ok      process", "setpriv --reuid 0" },
    { "one in another group",
      "start $tmp ./orrery 'env -u TSAN_OPTIONS setpriv --reuid 65534 --regid 1 --clear-groups'",
      "", "", "holder", "hides what it executes", Nobody },
    { "a socket for nobody", "start $tmp ./orrery \"$nobody\"; chmod 0 $tmp/*", "", "",
      "holder status", "You may not connect", Nobody },
    { "Orrery in a container",
      "echo 'mount -t tmpfs none tmp && exec ./orrery' >s; start $tmp s 'unshare -m sh'", "", "",
      "app-tmpdir socket status", "file system view", "unshare -m" },
    { "the client in a container", "start $tmp ./orrery", "", "", "holder",
      "inside another container", "unshare -pf --mount-proc" },
    { "no application", "rm orrery", "", "", "application", "There is no" },
    { "no server", "rm orrery-mcp", "", "", "server", "There is no" },
    { "not executable", "chmod -x orrery", "", Launch, "application", "Nothing was launched" },
    { "not readable", "start other ./orrery; chmod 111 orrery", "", "", "application",
      "but not read", Nobody },
    { "a script", "cp fails orrery", "", "", "application", "is no program" },
    { "not for this machine", "printf '\177ELF' >orrery", "", Launch, "launch",
      "Exec format error. -> Install the one" },
    { "dies at once", "", "APPDIR=@ APPIMAGE=@/fails", Launch, "launch",
      "with exit status 3 when" },
    { "its last words", "", "APPDIR=@ APPIMAGE=@/fails", Launch, "launch", "| no ?[31mdisplay" },
    { "dies when greeted", R"(echo '[{"exit":1}]' >hello.json)", "", Launch, "launch",
      "it stayed for" },
    { "refuses", "cp refusal hello.json", "", Launch, "launch", "refuses. -> Its own words" },
    { "hangs up", R"(echo '[{"close":1}]' >hello.json)", "", Launch, "launch",
      "and closed the connection after" },
    { "is silent", R"(cp $HASTY orrery-mcp; echo '[{"wait":60000}]' >hello.json)", "", Launch,
      "launch", "greeted, and was silent" },
    { "comes up elsewhere", "cp $HASTY orrery-mcp", "APPDIR=@ APPIMAGE=@/elsewhere", Launch,
      "launch", "Orrery's socket did not come up" },
    { "server dies", "cp fails orrery-mcp", "", "", "initialize", "exit status 3: no" },
    { "server cut off", ": >orrery-mcp", "", "", "initialize", "Exec format error" },
    { "server hangs", "printf '#!/bin/sh\nexec sleep 99' >orrery-mcp", "", "", "initialize",
      "no answer within" },
    { "server of another user", "start other ./orrery; chmod u+s orrery-mcp", "", "", "initialize",
      "chmod u-s", Nobody },
    { "TMPDIR nowhere", "", "TMPDIR=/no\033where", "", "tmpdir", "no folder" },
    { "TMPDIR in Latin-1", "", "", "", "tmpdir", "no UTF-8", "env TMPDIR=$(printf '/t\\344mp')" },
    { "relative TMPDIR", "", "TMPDIR=.", "", "", "relative to wherever" },
    { "long TMPDIR", "mkdir -p $PWD$PWD$PWD$PWD/tmp", "TMPDIR=@@@@/tmp", "", "tmpdir", "too long" },
    { "full TMPDIR", "", "", "", "", "it is full", FullFolder },
    { "a display and all well", "start $tmp ./orrery; ln -s $pipe wayland",
      "WAYLAND_DISPLAY=@/wayland DISPLAY=:77", "", "", "ok      display" },
    { "no display", "", "WAYLAND_DISPLAY=@/no DISPLAY=:77", "", "", "X77 is no socket). ->" },
    { "a sandbox", "", "SNAP=~", "", "", "SNAP=xxx" },
    { "cookies", "", "XAUTHORITY=@/fails", "", "", "ok      variables" },
    { "empty XAUTHORITY", "", "XAUTHORITY=", "", "", "nothing: XAUTHORITY" },
    { "another's AppImage", "", "APPDIR=/usr APPIMAGE=@/fails", "", "", "ignored" },
    { "a lost AppImage", "", "APPDIR=@ APPIMAGE=@/no", "", "", "image file is not there" },
    { "no executable", "", "APPDIR=@ APPIMAGE=@/refusal", "", "appimage", "may not be executed" },
};

QStringList list(const char *text)
{
    return QString::fromLatin1(text).split(u' ', Qt::SkipEmptyParts);
}

// The doctor beside a server and an application. The folder's own are usable by anybody.
class Practice : public Installation
{
public:
    Practice()
    {
        QFile::copy(QStringLiteral(DOCTOR_PATH), path(u"orrery-mcp-doctor"_s));
        write(u"fails"_s, "#!/bin/sh\nseq 12 >&2; echo 'no \033[31mdisplay' >&2; exit 3\n");
        write(u"elsewhere"_s, "#!/bin/sh\nTMPDIR=$APPDIR/other exec \"$APPDIR/orrery\"\n");
        write(u"hands-over"_s, "#!/bin/sh\n(sleep 0.7; exec \"$APPDIR/orrery\") &\n");
        // No raw string, over which moc would lose the class below.
        write(u"refusal"_s,
              "[{\"send\":\"{\\\"id\\\":$id,\\\"error\\\":{\\\"code\\\":\\\"no\\\"}}\\n\"}]");
        environment.insert(u"HASTY"_s, QStringLiteral(HASTY_SERVER_PATH));
        ready = shell("mkdir other; cp orrery other; chmod 755 . fails elsewhere hands-over;"
                      "chmod 1777 tmp");
    }

    void set(const char *variables)
    {
        for (const QString &variable : list(variables))
            environment.insert(variable.section(u'=', 0, 0),
                               variable.section(u'=', 1)
                                       .replace(u'@', folder())
                                       .replace(u'~', QString(5'000, u'x')));
    }

    // The doctor, which waits for nothing that cannot come: that would take it half a minute.
    std::unique_ptr<Child> examine(const QStringList &options, const QString &through = {})
    {
        auto doctor = std::make_unique<Child>(u"sh"_s,
                                              QStringList { u"-c"_s,
                                                            u"exec %1 \"$0\" \"$@\""_s.arg(through),
                                                            path(u"orrery-mcp-doctor"_s) }
                                                      + options,
                                              environment);
        doctor->process.setWorkingDirectory(folder());
        doctor->process.setProcessChannelMode(QProcess::MergedChannels);
        doctor->process.start();
        return doctor;
    }

    // What it says until it ends, and its exit status, -1 if it does not.
    static QString report(Child &doctor, int *exitStatus)
    {
        *exitStatus = doctor.process.waitForFinished(DoctorMs) ? doctor.process.exitCode() : -1;
        return QString::fromUtf8(doctor.process.readAll());
    }

    bool ready = false;

private:
    static constexpr int DoctorMs = 25'000;
};

// How many lines of other programs a text or a JSON report has.
qsizetype quotedIn(const QString &report)
{
    qsizetype count = report.count(u"\n          | "_s);
    for (const QJsonValue &check : parsed(report.toUtf8())["checks"_L1].toArray())
        count += check["quoted"_L1].toArray().size();
    return count;
}

// The checks of a text or a JSON report as "OUTCOME NAME", sorted: two processes come in the order
// of their numbers, and those begin again from the lowest some day.
QStringList checksIn(const QString &report)
{
    QStringList checks;
    for (const QJsonValue &check : parsed(report.toUtf8())["checks"_L1].toArray())
        checks += check["outcome"_L1].toString() + u' ' + check["name"_L1].toString();
    static const QRegularExpression line(u"^((?:ok|warning|fault) +\\S+)"_s,
                                         QRegularExpression::MultilineOption);
    for (const QRegularExpressionMatch &match : line.globalMatch(report))
        checks += match.captured().simplified();
    checks.sort();
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
        const QString through = QString::fromLatin1(situation.through);
        std::array<Practice, 2> homes;
        std::array<std::unique_ptr<Child>, 2> doctors;
        for (size_t json : { 0U, 1U }) {
            Practice &home = homes[json];
            QVERIFY(home.ready);
            if (!home.shell("(exec " + through.toUtf8() + " true)"))
                QSKIP("not permitted here");
            QProcess prepare;
            prepare.setProcessEnvironment(home.environment);
            prepare.setWorkingDirectory(home.folder());
            prepare.start(u"sh"_s,
                          { u"-ec"_s, QString::fromLatin1(Functions).arg(QLatin1StringView(Nobody))
                                              + QString::fromLatin1(situation.prepare) });
            QVERIFY(prepare.waitForFinished(PatienceMs));
            QVERIFY2(prepare.exitCode() == 0, prepare.readAllStandardError());
            QFile::remove(home.path(u"starts"_s));
            QFile::remove(home.path(u"received"_s));
            home.set(situation.variables);
            QStringList options = list(situation.option);
            doctors[json] = home.examine(json ? options << u"--json"_s : options, through);
        }
        int status[2];
        const QString text = Practice::report(*doctors[0], &status[0]);
        const QString json = Practice::report(*doctors[1], &status[1]);
        QVERIFY2(text.contains(QLatin1StringView(situation.said)), qPrintable(text));
        QVERIFY(std::all_of(text.begin(), text.end(),
                            [](QChar c) { return c.isPrint() || c == u'\n'; }));
        for (const QString &line : text.split(u'\n'))
            QVERIFY(line.size() < 2'500);
        QCOMPARE(checksIn(json), checksIn(text));
        QCOMPARE(quotedIn(json), quotedIn(text));
        const qsizetype warnings = checksIn(json).filter(u"warning"_s).size();
        QCOMPARE(parsed(json.toUtf8())["warnings"_L1].toInt(), warnings);
        QVERIFY(text.contains(u" %1 warning"_s.arg(warnings)));
        QCOMPARE(text.section(u'\n', -2).contains("--launch"_L1), situation.option != Launch);
        const QStringList faults = checksIn(json).filter(u"fault"_s);
        QCOMPARE(faults.join(u' ').remove(u"fault "_s), QLatin1StringView(situation.faults));
        for (const int exitStatus : status)
            QCOMPARE(exitStatus, faults.isEmpty() ? 0 : 1);
        // It started nothing, and said nothing to anybody.
        for (const Practice &home : homes) {
            const bool traces = QFile::exists(home.path(u"starts"_s)) || !home.received().isEmpty();
            QVERIFY(situation.option == Launch || !traces);
            QVERIFY(!QFile::exists(home.path(u"other/received"_s)));
        }
    }

    void leavesVariablesBehind()
    {
        for (const bool inside : { true, false }) { // of an AppImage, whose variables then stay
            Practice home;
            home.set(inside ? "APPDIR=@ APPIMAGE=@/fails" : "APPDIR=/usr");
            const Application app(home);
            int exitStatus = -1;
            const QString text = Practice::report(*home.examine({ u"--bare"_s }), &exitStatus);
            const QString since = text.section(u" since "_s, 1).left(19);
            const QDateTime start = QDateTime::fromString(since, Qt::ISODate);
            QVERIFY2(qAbs(start.secsTo(QDateTime::currentDateTime())) < 60, qPrintable(since));
            for (const char *said : { "TMPDIR is not set", "Neither", "cannot meet",
                                      inside ? "/fails, which is what gets" : "no AppImage" })
                QVERIFY2(text.contains(QLatin1StringView(said)), qPrintable(text));
            QCOMPARE(exitStatus, 1);
        }
    }

    void launchesWhenTold()
    {
        for (const char *variables : { "", "APPDIR=@ APPIMAGE=@/hands-over" }) {
            Practice home;
            home.set(variables);
            int exitStatus = -1;
            const QString text = Practice::report(*home.examine({ u"--launch"_s }), &exitStatus);
            QVERIFY2(text.contains("Orrery was started, and answered"_L1), qPrintable(text));
            QCOMPARE(exitStatus, 0);
            QCOMPARE(home.read(u"starts"_s), "x");
            QCOMPARE(home.applications().size(), 1);
            QCOMPARE(home.received().back()["method"_L1], QJsonValue(u"list_vms"_s));
        }
    }

    // The server's answer can wait until the lines before are read.
    void saysAtOnceWhatItKnows()
    {
        Practice home;
        QVERIFY(QFile::remove(home.path(u"orrery-mcp"_s)));
        home.write(u"orrery-mcp"_s, "#!/bin/sh\nuntil test -e go; do sleep 0.01; done; exit 7\n");
        QVERIFY(home.shell("chmod +x orrery-mcp"));
        const std::unique_ptr<Child> doctor = home.examine({});
        while (!doctor->line().startsWith("ok      socket"))
            QVERIFY(doctor->process.state() == QProcess::Running);
        home.write(u"go"_s, {});
        int exitStatus = -1;
        const QString text = Practice::report(*doctor, &exitStatus);
        QVERIFY2(text.contains("exit status 7"_L1), qPrintable(text));
    }

    void tellsWhetherItChecked()
    {
        Practice home;
        const struct
        {
            QString option, through, said;
            int exitStatus;
        } rows[] { { u"--help"_s, {}, u"Usage"_s, 0 },
                   { u"--no-such"_s, {}, u"no-such"_s, 2 },
                   { u"operand"_s, {}, u"operand"_s, 2 },
                   { u"--json"_s, u">/dev/full"_s, u"cannot be written"_s, 2 } };
        for (const auto &row : rows) {
            int exitStatus = -1;
            const QString text
                    = Practice::report(*home.examine({ row.option }, row.through), &exitStatus);
            QVERIFY2(text.contains(row.said), qPrintable(text));
            QVERIFY(checksIn(text).isEmpty());
            QCOMPARE(exitStatus, row.exitStatus);
        }
    }
};

QTEST_GUILESS_MAIN(tst_doctor)
#include "tst_doctor.moc"
