// The server and the application's process: how it is launched and ended, how long it may take, and
// what the two inherit from a client.

#include "harness.h"

#include <list>
#include <optional>

#include <fcntl.h>

namespace {

// A call for which the application takes its time, in minutes of the hasty server.
struct Case
{
    QString tool;
    QString method; // that has the steps
    QByteArray steps;
    int least; // after which the client has the answer
    int most;
    QString text; // of the answer, or none: no error
};

struct Run
{
    explicit Run(const Case &test)
    {
        home.script(test.method, '[' + test.steps + ']');
        app.emplace(home);
        server.emplace(home);
        timer.start();
        server->send(toolCall(1, test.tool));
        server->process.waitForBytesWritten();
    }

    HastyInstallation home;
    std::optional<Application> app;
    std::optional<Server> server;
    QElapsedTimer timer;
};

} // namespace

class tst_app : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reportsLaunches()
    {
        const Installation home;
        Server server(home);
        QVERIFY(QFile::rename(home.path(u"orrery"_s), home.path(u"away"_s)));
        const QString couldNot = u"Couldn't start "_s + home.path(u"orrery"_s);
        QCOMPARE(resultText(server.call(u"launch_app"_s)), couldNot);
        QCOMPARE(resultText(server.call(u"list_vms"_s)), u"Orrery call failed: "_s + couldNot);
        QVERIFY(QFile::rename(home.path(u"away"_s), home.path(u"orrery"_s)));
        QCOMPARE(compact(resultObject(server.call(u"launch_app"_s))),
                 R"({"alreadyRunning":false,"launched":true,"running":true,"socketReady":true})");
        QVERIFY(!isError(server.call(u"list_vms"_s)));
        QCOMPARE(compact(resultObject(server.call(u"launch_app"_s))),
                 R"({"alreadyRunning":true,"launched":false,"reason":"already running",)"
                 R"("running":true,"socketReady":true})");
        QCOMPARE(home.received().size(), 2); // hello and list_vms: launch_app said nothing
        // Where its file is replaced while it runs, as by an upgrade, the connection to it stays.
        QVERIFY(home.shell("mv orrery away && cp away orrery"));
        QVERIFY(resultObject(server.call(u"launch_app"_s))["socketReady"_L1].toBool());
        QVERIFY(!isError(server.call(u"list_vms"_s)));
        QCOMPARE(home.received().size(), 3);
    }

    void passesARefusedHelloOn_data()
    {
        QTest::addColumn<QByteArray>("error");
        QTest::addColumn<QString>("text");
        QTest::newRow("refused") << QByteArray(R"({"code":"denied","message":"no %1"})")
                                 << u"Orrery error [denied]: no %1"_s;
        QTest::newRow("null") << QByteArray("null") << u"Orrery error []: "_s;
    }

    void passesARefusedHelloOn()
    {
        QFETCH(QByteArray, error);
        QFETCH(QString, text);
        const Installation home;
        home.script(u"hello"_s, sendStep("{\"id\":$id,\"error\":" + error + "}\n"));
        Server server(home);
        QCOMPARE(compact(resultObject(server.call(u"launch_app"_s))),
                 R"({"alreadyRunning":false,"launched":true,"running":true,"socketReady":false})");
        QCOMPARE(resultText(server.call(u"list_vms"_s)), text); // of one that runs
        QCOMPARE(home.received().size(), 2); // and nothing was started or asked again
        QCOMPARE(home.read(u"starts"_s), "x");
        home.endApplications();
        QCOMPARE(resultText(server.call(u"list_vms"_s)), text); // of one that was started for it
        // The refusal is of that call: once the application is gone, the next one starts it.
        QVERIFY(QFile::remove(home.path(u"hello.json"_s)));
        home.endApplications();
        QVERIFY(!isError(server.call(u"list_vms"_s)));
    }

    void noticesThatTheApplicationWentAway_data()
    {
        QTest::addColumn<QString>("tool");
        QTest::addColumn<bool>("restarted");
        for (const char *tool : { "get_vm", "launch_app", "quit_app" }) {
            QTest::addRow("before %s", tool) << QString::fromLatin1(tool) << false;
            QTest::addRow("before %s, restarted", tool) << QString::fromLatin1(tool) << true;
        }
    }

    void noticesThatTheApplicationWentAway()
    {
        QFETCH(QString, tool);
        QFETCH(bool, restarted);
        const Installation home;
        Server server(home);
        // With something unread on the old connection, which must not be taken for an answer, and
        // which does not end where another program has inherited it.
        const QByteArray sent = sendStep(Answer + "{\"id\":4,\"result\":\"old\"}\n{\"id\"");
        QVERIFY(!isError(server.callSteps((restarted ? "[" : "[{\"leak\":20},") + sent.sliced(1))));
        home.endApplications();
        std::unique_ptr<Application> app;
        if (restarted)
            app = std::make_unique<Application>(home);
        const QJsonObject answer = server.call(tool);
        QVERIFY2(!isError(answer), compact(answer).constData());
        if (tool == "launch_app"_L1)
            QCOMPARE(resultObject(answer)["socketReady"_L1], QJsonValue(true));
        if (tool == "get_vm"_L1)
            QCOMPARE(resultObject(answer)["id"_L1], QJsonValue(4));
        if (tool == "quit_app"_L1)
            QCOMPARE(home.received().last()["method"_L1].toString(),
                     restarted ? u"quit"_s : u"get_vm"_s);
        QVERIFY(!isError(server.call(u"get_vm"_s)));
    }

    void quitsTheApplication_data()
    {
        QTest::addColumn<QJsonValue>("mode");
        QTest::addColumn<QByteArray>("steps"); // for hello or quit
        QTest::addColumn<int>("seconds"); // it takes at least
        QTest::addColumn<QByteArray>("result");
        const QByteArray quit
                = R"({"mode":"graceful","quit":true,"running":false,"wasRunning":true})";
        const QString reason = u"quit requested but app still running (try mode:force)"_s;
        const QByteArray stays = compact({ { u"mode"_s, u"graceful"_s },
                                           { u"quit"_s, false },
                                           { u"reason"_s, reason },
                                           { u"running"_s, true },
                                           { u"wasRunning"_s, true } });
        const auto row = [](const char *name, const QJsonValue &mode, const QByteArray &steps,
                            int seconds, const QByteArray &result) {
            QTest::newRow(name) << mode << steps << seconds << result;
        };
        const QByteArray never = R"([{"wait":100000}])";
        const QByteArray answered = sendStep(Answer);
        row("graceful", u"graceful"_s, "", 0, quit);
        row("no mode", QJsonValue::Undefined, "", 0, quit);
        row("mode of another type", true, "", 0, quit);
        row("Force", u"Force"_s, "", 0, quit);
        row("force", u"force"_s, "quit" + answered, 0,
            R"({"mode":"force","quit":true,"running":false,"wasRunning":true})");
        row("stays", u"graceful"_s, "quit" + answered, 10, stays);
        row("does not answer", u"graceful"_s, "quit" + never, 5 + 10, stays);
        row("does not greet", u"graceful"_s, "hello" + never, 5 + 10, stays);
        row("does not accept", u"graceful"_s, "deaf", 2 + 10, stays);
        row("has no pipe", u"graceful"_s, "gone", 2 + 10, stays);
        row("ends instead of greeting", u"graceful"_s, R"(hello[{"exit":1}])", 0, quit);
        row("closes and goes later", u"graceful"_s,
            "quit" + sendStep("{\"id\":", R"(,{"wait":1500},{"exit":1})"), 0, quit);
        row("does not run", u"force"_s, "none", 0,
            R"({"quit":false,"reason":"not running","running":false,"wasRunning":false})");
    }

    void quitsTheApplication()
    {
        QFETCH(QJsonValue, mode);
        QFETCH(QByteArray, steps);
        QFETCH(int, seconds);
        QFETCH(QByteArray, result);
        HastyInstallation home;
        if (steps == "deaf")
            home.environment.insert(u"FAKE_DEAF"_s, u"1"_s);
        if (mode == "force"_L1)
            home.environment.insert(u"FAKE_LARGE"_s, u"200000000"_s);
        const qsizetype name = std::max<qsizetype>(steps.indexOf('['), 0);
        home.script(QString::fromLatin1(steps.first(name)), steps.sliced(name));
        std::unique_ptr<Application> app;
        if (steps != "none")
            app = std::make_unique<Application>(home);
        QVERIFY(steps != "gone" || QFile::remove(home.pipePath()));
        Server server(home);
        QCOMPARE(server.status()["running"_L1].toBool(), steps != "none");
        QElapsedTimer timer;
        timer.start();
        const QJsonObject answer = server.call(u"quit_app"_s, { { u"mode"_s, mode } });
        const qint64 over = timer.elapsed() - seconds * HastyInstallation::SecondMs;
        constexpr qint64 SlackMs = 1'600; // minutes for seconds would add more
        QVERIFY2(over >= 0 && over < SlackMs, qPrintable(QString::number(over)));
        QCOMPARE(compact(resultObject(answer)), result);
        QCOMPARE(isError(answer), result.contains("still running"));
        timer.start();
        const QJsonObject status = server.status();
        if (steps == "deaf") // it might have been about to accept
            QVERIFY(timer.elapsed() >= 1'500 && timer.elapsed() < 8'000);
        QCOMPARE(status["running"_L1].toBool(), isError(answer));
        QCOMPARE(status["socketReachable"_L1].toBool(), isError(answer) && steps.contains('['));
        QCOMPARE(server.finish(), 0);
        QCOMPARE(server.process.readAllStandardError(), "");
    }

    // Pings are answered all the while.
    void waitsForAPipeThatDoesNotComeUp()
    {
        const HastyInstallation home;
        QVERIFY(home.shell("cp /bin/cat orrery"));
        Child app(home.path(u"orrery"_s), {}, home.environment);
        app.process.start();
        QVERIFY(app.process.waitForStarted());
        Server server(home);
        QCOMPARE(server.status()["running"_L1], QJsonValue(true));
        QElapsedTimer timer;
        timer.start();
        server.send(toolCall(1, u"list_vms"_s));
        server.send(R"({"id":2,"method":"ping"})");
        QCOMPARE(parsed(server.line())["id"_L1].toInt(), 2);
        QCOMPARE(resultText(parsed(server.line())), notUp);
        constexpr int Seconds = 3 + 30;
        QVERIFY(timer.elapsed() >= Seconds * HastyInstallation::SecondMs);
        QVERIFY(timer.elapsed() < (Seconds + 15) * HastyInstallation::SecondMs);
        QCOMPARE(home.applications().size(), 1);
    }

    // How long a call may take, and the user who is asked whether the client is allowed. All at
    // once, in the order in which they end, because it takes long.
    void keepsTheTimeLimits()
    {
        const QString late = u"Orrery call failed: Orrery did not answer in time"_s;
        const QString event = "{\"method\":\""_L1 + QString(50'000, u'x') + "\"}\n"_L1;
        const QByteArray events = compact({ { u"send"_s, event }, { u"times"_s, 10'000'000 } });
        const auto after = [](qint64 minutes) {
            const qint64 wait = minutes * HastyInstallation::MinuteMs;
            return compact({ { u"wait"_s, wait } }) + ',' + sendStep(Answer).sliced(1).chopped(1);
        };
        // The second hello is read after the first was answered. A flood goes out when it is read.
        const Case cases[] {
            { u"get_vm"_s, u"get_vm"_s, after(20), 5, 9, late },
            { u"get_vm"_s, u"get_vm"_s, events, 5, 20, late },
            { u"create_vm"_s, u"create_vm"_s, after(7), 7, 12, u"1"_s },
            { u"list_vms"_s, u"hello"_s, after(4), 8, 13, {} },
            { u"list_vms"_s, u"hello"_s, after(80), 10, 16, notUp },
            { u"job_wait"_s, u"job_wait"_s, after(80), 31, 45, late },
        };
        std::list<Run> runs;
        for (const Case &test : cases)
            runs.emplace_back(test);
        for (auto [test, run] = std::pair(std::begin(cases), runs.begin()); run != runs.end();
             ++test, ++run) {
            QByteArray line;
            while ((line = run->server->line()).contains("notifications/message")) { }
            const auto minutes = double(run->timer.elapsed()) / HastyInstallation::MinuteMs;
            QVERIFY2(minutes >= test->least && minutes < test->most,
                     qPrintable(u"%1: %2"_s.arg(test - cases).arg(minutes)));
            if (test->text.isEmpty())
                QVERIFY(!isError(parsed(line)));
            else
                QCOMPARE(resultText(parsed(line)), test->text);
        }
    }

    void keepsTheLimitWhileItWrites()
    {
        HastyInstallation home;
        home.environment.insert(u"FAKE_SLOW"_s, u"100"_s);
        const Application app(home);
        Server server(home);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(resultText(server.call(u"get_vm"_s, { { u"x"_s, QString(6'000'000, u'x') } })),
                 u"Orrery call failed: Orrery did not answer in time"_s);
        QVERIFY(timer.elapsed() >= 5 * HastyInstallation::MinuteMs);
        QVERIFY(timer.elapsed() < 7'000); // all of it would take longer
    }

    // All combinations of missing standard streams: no socket may land on one.
    void runsWithoutStandardStreams_data()
    {
        QTest::addColumn<int>("closed");
        for (int closed = 0; closed < 8; ++closed)
            QTest::addRow("%d", closed) << closed;
    }

    void runsWithoutStandardStreams()
    {
        QFETCH(int, closed);
        const Installation home;
        const Application app(home);
        Server server(home, [=] {
            for (int fd = 0; fd < 3; ++fd) {
                if (closed & (1 << fd))
                    ::close(fd);
            }
        });
        server.send(toolCall(1, u"get_vm"_s));
        for (int fd = 1; fd < 3; ++fd) {
            const QString link = u"/proc/%1/fd/%2"_s.arg(server.process.processId()).arg(fd);
            if ((closed & (1 << fd)) && !(closed & 1)) // without input it ends at once
                QTRY_COMPARE(QFile::symLinkTarget(link), u"/dev/null"_s);
        }
        QCOMPARE(server.finish(), 0);
        QCOMPARE(server.process.readAllStandardOutput().isEmpty(), (closed & 3) != 0);
        QCOMPARE(server.process.readAllStandardError(), "");
        QCOMPARE(home.received().size(), closed & 1 ? 0 : 2);
        for (const QJsonObject &request : home.received())
            QVERIFY(request.contains("method"_L1));
    }

    void doesNotRunWithTheRightsOfAnother()
    {
        if (getuid() != 0)
            QSKIP("only root can take another user id");
        const Installation home;
        Server server(home, [] { setresuid(65534, 0, 0); });
        QCOMPARE(server.finish(), 1);
        QVERIFY(server.process.readAllStandardError().contains("rights of another user"));
    }

    void runsWithStandardStreamsThatDoNotBlock()
    {
        constexpr int Pings = 50;
        const Installation home;
        const Application app(home);
        Server server(home, [] {
            fcntl(0, F_SETFL, O_NONBLOCK);
            fcntl(1, F_SETFL, O_NONBLOCK);
        });
        QVERIFY(!isError(server.call(u"list_vms"_s))); // after an input that was empty for a while
        const QString large(3'000'000, u'x');
        home.script(u"get_vm"_s, sendStep("{\"id\":$id,\"result\":{\"imageBase64\":\""
                                          + large.toLatin1() + "\",\"width\":7}}\n"));
        server.send(toolCall(1, u"get_vm"_s));
        while (server.process.bytesToWrite() > 0)
            QVERIFY(server.process.waitForBytesWritten());
        QTest::qSleep(500); // the answer fills the pipe, which qWait() would empty
        for (int i = 0; i < Pings; ++i)
            server.send(R"({"id":"ping","method":"ping"})");
        QCOMPARE(server.finish(), 0);
        QList<QByteArray> lines = server.process.readAllStandardOutput().split('\n');
        QCOMPARE(lines.removeAll(R"({"id":"ping","jsonrpc":"2.0","result":{}})"), Pings);
        const QJsonValue content = parsed(lines.value(0))["result"_L1]["content"_L1];
        QCOMPARE(content[0]["data"_L1], QJsonValue(large));
        QCOMPARE(content[1]["text"_L1], QJsonValue(u"{\n    \"width\": 7\n}"_s));
    }

    void goesOnWithoutAReader_data()
    {
        QTest::addColumn<bool>("full");
        QTest::newRow("closed") << false;
        QTest::newRow("a full device") << true;
    }

    void goesOnWithoutAReader()
    {
        QFETCH(bool, full);
        const Installation home;
        const Application app(home);
        Server server(home, [=] {
            int ends[2] = { -1, full ? ::open("/dev/full", O_WRONLY | O_CLOEXEC) : -1 };
            if (!full && pipe2(ends, O_CLOEXEC) == 0)
                ::close(ends[0]); // QProcess would go on reading, and throw away what it reads
            dup2(ends[1], 1);
        });
        server.send(R"({"id":0,"method":"ping"})"); // before Qt's sockets ignore SIGPIPE for us
        for (int i = 0; i < 20; ++i)
            server.send(toolCall(i, u"get_vm"_s));
        QCOMPARE(server.finish(), 0);
        QCOMPARE(home.received().size(), 21);
    }

    void launchesWithoutLeavingTraces()
    {
        const Installation home;
        {
            Server server(home, [] { dup2(0, 200); });
            QVERIFY(!isError(server.call(u"list_vms"_s)));
            server.process.kill();
        }
        // It outlives the server, and has nothing from it but its environment.
        const QList<qint64> apps = home.applications();
        QCOMPARE(apps.size(), 1);
        const QString proc = u"/proc/%1/"_s.arg(apps.first());
        for (int fd = 0; fd < 3; ++fd)
            QCOMPARE(QFile::symLinkTarget(proc + u"fd/%1"_s.arg(fd)), u"/dev/null"_s);
        QVERIFY(!QFileInfo(proc + u"fd/200"_s).isSymLink());
        QVERIFY(getsid(static_cast<pid_t>(apps.first())) != getsid(0));
        QFile processStatus(proc + u"status"_s);
        QVERIFY(processStatus.open(QIODevice::ReadOnly));
        QVERIFY(processStatus.readAll().contains("SigIgn:\t0000000000000000"));
    }
};

QTEST_GUILESS_MAIN(tst_app)
#include "tst_app.moc"
