// The server and the application's process: who is trusted, how it is found, launched and ended,
// and what the two inherit from a client.

#include "harness.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

const QString foreign = u"Orrery call failed: The Orrery control pipe is held by a process that "
                        "isn't Orrery; refusing to talk to it."_s;

// Runs a program as another user; only root can.
void becomeNobody()
{
    if (setgid(65534) != 0 || setuid(65534) != 0)
        _exit(1);
}

bool isError(const QJsonObject &response) { return response["result"_L1]["isError"_L1].toBool(); }

QJsonObject status(Server &server) { return resultObject(server.call(u"app_status"_s)); }

} // namespace

class tst_app : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void knowsItsApplication_data();
    void knowsItsApplication();
    void seesThroughAppImageMounts_data();
    void seesThroughAppImageMounts();
    void startsTheAppImageItRunsFrom_data();
    void startsTheAppImageItRunsFrom();
    void survivesWhatHoldsTheName_data();
    void survivesWhatHoldsTheName();
    void reportsLaunches();
    void passesARefusedHelloOn_data();
    void passesARefusedHelloOn();
    void noticesThatTheApplicationWentAway_data();
    void noticesThatTheApplicationWentAway();
    void quitsTheApplication_data();
    void quitsTheApplication();
    void waitsForAPipeThatDoesNotComeUp();
    void saysWhomItMeetsWhenAsked();
    void runsWithoutStandardStreams_data();
    void runsWithoutStandardStreams();
    void runsWithStandardStreamsThatDoNotBlock();
    void goesOnWithoutAReader_data();
    void goesOnWithoutAReader();
    void launchesWithoutLeavingTraces();
    void knowsItsPlaceThroughALink();
    void knowsItsPlaceAfterItsFileIsGone();
    void startsOneApplicationWithManyServers();
};

// An application that is started in some way and serves the pipe: is it taken for ours?
void tst_app::knowsItsApplication_data()
{
    QTest::addColumn<QString>("how");
    QTest::addColumn<bool>("found"); // by app_status
    QTest::addColumn<bool>("trusted"); // as the pipe's holder
    QTest::newRow("as installed") << u"plain"_s << true << true;
    QTest::newRow("by a link elsewhere") << u"started by link"_s << true << true;
    QTest::newRow("the sibling is a link") << u"sibling is link"_s << true << true;
    QTest::newRow("replaced while running") << u"replaced"_s << true << true;
    QTest::newRow("deleted while running") << u"deleted"_s << false << false;
    QTest::newRow("name with (deleted)") << u"named deleted"_s << true << true;
    QTest::newRow("a copy elsewhere") << u"copy"_s << false << false;
    QTest::newRow("a hard link elsewhere") << u"hard link"_s << false << false;
    QTest::newRow("another name") << u"other name"_s << false << false;
    QTest::newRow("by the dynamic loader") << u"loader"_s << false << false;
    QTest::newRow("by a script of its name") << u"script"_s << false << false;
    QTest::newRow("as another user") << u"other user"_s << false << false;
}

void tst_app::knowsItsApplication()
{
    QFETCH(QString, how);
    QFETCH(bool, found);
    QFETCH(bool, trusted);
    if (how == "other user"_L1 && getuid() != 0)
        QSKIP("needs root");
    Installation home;
    QDir(home.folder()).mkdir(u"other"_s);
    const QString sibling = home.path(u"orrery"_s);
    QString program = sibling;
    QStringList arguments;
    if (how == "started by link"_L1) {
        QVERIFY(QFile::link(sibling, program = home.path(u"other/link"_s)));
    } else if (how == "sibling is link"_L1) {
        program = home.path(u"other/app"_s);
        QVERIFY(QFile::rename(sibling, program) && QFile::link(program, sibling));
    } else if (how == "named deleted"_L1) {
        QVERIFY(QFile::copy(sibling, program = sibling + " (deleted)"_L1));
    } else if (how == "copy"_L1 || how == "other name"_L1) {
        program = home.path(how == "copy"_L1 ? u"other/orrery"_s : u"orrery2"_s);
        QVERIFY(QFile::copy(sibling, program));
    } else if (how == "hard link"_L1) {
        program = home.path(u"other/orrery"_s);
        QCOMPARE(link(qPrintable(sibling), qPrintable(program)), 0);
    } else if (how == "script"_L1) {
        const QString real = home.path(u"other/real"_s);
        QVERIFY(QFile::rename(sibling, real));
        home.write(u"orrery"_s, "#!/bin/sh\n" + real.toLocal8Bit() + "; exit\n");
        QVERIFY(QFile::setPermissions(sibling, QFile::ReadOwner | QFile::ExeOwner));
    } else if (how == "loader"_L1) {
        program = u"/lib64/ld-linux-x86-64.so.2"_s;
        arguments = { sibling };
    }

    Child app(program, arguments, home.environment);
    if (how == "other user"_L1) {
        // In a folder that anybody may use, as /tmp is.
        QCOMPARE(chmod(qPrintable(home.folder()), 0755), 0);
        QCOMPARE(chmod(qPrintable(home.path(u"tmp"_s)), 01777), 0);
        app.process.setChildProcessModifier([path = home.pipePath().toLocal8Bit()] {
            // The pipe has the victim's user id in its name: bind it first, then change.
            sockaddr_un address {};
            address.sun_family = AF_UNIX;
            qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
            becomeNobody();
            const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
                || listen(fd, 8) != 0)
                _exit(1);
            chmod(path.constData(), 0777);
        });
    }
    app.process.start();
    if (how == "other user"_L1)
        QTRY_VERIFY(QFile::exists(home.pipePath()));
    else
        QCOMPARE(app.line(), "listening");
    if (how == "replaced"_L1 || how == "deleted"_L1) {
        QVERIFY(QFile::remove(sibling));
        QVERIFY(how == "deleted"_L1 || QFile::copy(QStringLiteral(FAKE_PATH), sibling));
    }

    Server server(home);
    const QJsonObject told = status(server);
    QCOMPARE(told["running"_L1].toBool(), found);
    QCOMPARE(told["socketReachable"_L1].toBool(), found);
    QCOMPARE(told["pid"_L1], found ? QJsonValue(app.process.processId()) : QJsonValue());
    QCOMPARE(told["version"_L1], found ? QJsonValue(u"0.1.147"_s) : QJsonValue());
    QCOMPARE(told["build"_L1], found ? QJsonValue(u"147"_s) : QJsonValue());
    QCOMPARE(told["bundleId"_L1], QJsonValue(u"app.orrery.Orrery"_s));
    QCOMPARE(told.size(), 6);

    const QJsonObject answer = server.call(u"list_vms"_s);
    QCOMPARE(isError(answer), !trusted);
    if (!trusted && how != "deleted"_L1) {
        QCOMPARE(resultText(answer), foreign);
    } else if (!trusted) {
        QCOMPARE(resultText(answer), u"Orrery call failed: Couldn't start "_s + sibling);
    }
    // Not a byte goes to a holder that is not trusted.
    const bool heard = QFile::exists(home.path(u"received"_s))
                       || QFile::exists(home.path(u"other/received"_s));
    QCOMPARE(heard, trusted);
    QCOMPARE(server.finish(), 0);
}

// One AppImage, mounted at two places: this program under one, the application under the other.
void tst_app::seesThroughAppImageMounts_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<bool>("found");
    QTest::newRow("the same image") << u"none"_s << true;
    QTest::newRow("other contents of the same size") << u"contents"_s << false;
    QTest::newRow("other size") << u"size"_s << false;
    QTest::newRow("another image") << u"image"_s << false;
    QTest::newRow("no image told") << u"no image"_s << false;
    QTest::newRow("outside of its mount") << u"outside"_s << false;
    QTest::newRow("the environment too far in") << u"far"_s << false;
    QTest::newRow("we are not in our mount") << u"not ours"_s << false;
}

void tst_app::seesThroughAppImageMounts()
{
    QFETCH(QString, change);
    QFETCH(bool, found);
    Installation home; // our own mount
    Installation their;
    home.write(u"image"_s, "an image");
    home.write(u"image2"_s, "another image");
    if (change == "contents"_L1 || change == "size"_L1) {
        QFile file(their.path(u"orrery"_s));
        QVERIFY(file.open(QIODevice::ReadWrite));
        file.seek(change == "size"_L1 ? file.size() : file.size() - 1);
        file.write("#");
    }
    their.environment.insert(u"TMPDIR"_s, home.path(u"tmp"_s));
    their.environment.insert(u"APPDIR"_s, change == "outside"_L1 ? u"/usr"_s : their.folder());
    if (change != "no image"_L1)
        their.environment.insert(u"APPIMAGE"_s,
                                 home.path(change == "image"_L1 ? u"image2"_s : u"image"_s));
    if (change == "far"_L1) {
        for (int i = 0; i < 12; ++i) // what precedes APPDIR, alphabetically too
            their.environment.insert(u"AAA%1"_s.arg(i), QString(100'000, u'x'));
    }
    const Application app(their);
    QVERIFY(app.listening);
    home.environment.insert(u"APPDIR"_s, change == "not ours"_L1 ? u"/usr"_s : home.folder());
    home.environment.insert(u"APPIMAGE"_s, home.path(u"image"_s));
    Server server(home);
    QCOMPARE(status(server)["running"_L1].toBool(), found);
    if (found)
        QVERIFY(!isError(server.call(u"list_vms"_s)));
}

void tst_app::startsTheAppImageItRunsFrom_data()
{
    QTest::addColumn<bool>("inside");
    QTest::newRow("from an AppImage") << true;
    QTest::newRow("with another program's variables") << false;
}

void tst_app::startsTheAppImageItRunsFrom()
{
    QFETCH(bool, inside);
    Installation home;
    home.write(u"image"_s, "#!/bin/sh\ntouch \"$TMPDIR/image started\"\nexec \"$APPDIR/orrery\"\n");
    QFile::setPermissions(home.path(u"image"_s), QFile::ReadOwner | QFile::ExeOwner);
    home.environment.insert(u"APPDIR"_s, inside ? home.folder() : u"/usr"_s);
    home.environment.insert(u"APPIMAGE"_s, home.path(u"image"_s));
    Server server(home);
    QVERIFY(!isError(server.call(u"list_vms"_s)));
    QCOMPARE(QFile::exists(home.path(u"tmp/image started"_s)), inside);
}

// What holds the pipe's name while no application runs, and what comes of the first call.
void tst_app::survivesWhatHoldsTheName_data()
{
    QTest::addColumn<QString>("what");
    QTest::addColumn<bool>("launched");
    QTest::newRow("nothing") << u"nothing"_s << true;
    QTest::newRow("a dead socket") << u"dead"_s << true;
    QTest::newRow("a plain file") << u"file"_s << true;
    QTest::newRow("a link to nowhere") << u"dangling"_s << true;
    QTest::newRow("a link to another's socket") << u"link"_s << false;
}

void tst_app::survivesWhatHoldsTheName()
{
    QFETCH(QString, what);
    QFETCH(bool, launched);
    const Installation home;
    const Installation other;
    std::unique_ptr<Application> stranger;
    if (what == "dead"_L1)
        QVERIFY(Application(home).listening);
    else if (what == "file"_L1)
        QVERIFY(QFile::copy(QStringLiteral(CONTRACT_PATH), home.pipePath()));
    else if (what != "nothing"_L1)
        QVERIFY(QFile::link(other.pipePath(), home.pipePath()));
    if (what == "link"_L1)
        stranger = std::make_unique<Application>(other);

    Server server(home);
    const QJsonObject answer = server.call(u"list_vms"_s);
    QCOMPARE(isError(answer), !launched);
    if (!launched)
        QCOMPARE(resultText(answer), foreign);
    QVERIFY(!QFile::exists(other.path(u"received"_s)));
    if (launched)
        QCOMPARE(home.applications().size(), 1);
}

void tst_app::reportsLaunches()
{
    const Installation home;
    Server server(home);
    QVERIFY(QFile::rename(home.path(u"orrery"_s), home.path(u"away"_s)));
    const QString couldNot = u"Couldn't start "_s + home.path(u"orrery"_s);
    QCOMPARE(resultText(server.call(u"launch_app"_s)), couldNot);
    QCOMPARE(resultText(server.call(u"list_vms"_s)), u"Orrery call failed: "_s + couldNot);
    QCOMPARE(compact(status(server)),
             R"({"build":null,"bundleId":"app.orrery.Orrery","pid":null,"running":false,)"
             R"("socketReachable":false,"version":null})");
    QVERIFY(QFile::rename(home.path(u"away"_s), home.path(u"orrery"_s)));
    QCOMPARE(compact(resultObject(server.call(u"launch_app"_s))),
             R"({"alreadyRunning":false,"launched":true,"running":true,"socketReady":true})");
    QVERIFY(!isError(server.call(u"list_vms"_s)));
    QCOMPARE(compact(resultObject(server.call(u"launch_app"_s))),
             R"({"alreadyRunning":true,"launched":false,"reason":"already running","running":true,)"
             R"("socketReady":true})");
    QCOMPARE(home.received().size(), 2); // hello and list_vms: launch_app said nothing
}

void tst_app::passesARefusedHelloOn_data()
{
    QTest::addColumn<QByteArray>("error");
    QTest::addColumn<QString>("text");
    QTest::newRow("refused") << QByteArray(R"({\"code\":\"denied\",\"message\":\"no %1\"})")
                             << u"Orrery error [denied]: no %1"_s;
    QTest::newRow("bare") << QByteArray(R"({\"code\":7})") << u"Orrery error []: "_s;
    QTest::newRow("null") << QByteArray("null") << u"Orrery error []: "_s;
}

void tst_app::passesARefusedHelloOn()
{
    QFETCH(QByteArray, error);
    QFETCH(QString, text);
    const Installation home;
    home.script(u"hello"_s, R"([{"send":"{\"id\":$id,\"error\":)" + error + R"(}\n"}])");
    {
        const Application app(home);
        Server server(home);
        QCOMPARE(resultText(server.call(u"list_vms"_s)), text);
        QCOMPARE(home.received().size(), 1); // and nothing was started or asked again
        QCOMPARE(home.applications().size(), 1);

        // The refusal is of that call: once the application is gone, the next one starts it.
        QVERIFY(QFile::remove(home.path(u"hello.json"_s)));
        home.endApplications();
        QVERIFY(!isError(server.call(u"list_vms"_s)));
    }
    home.endApplications();
    home.script(u"hello"_s, R"([{"send":"{\"id\":$id,\"error\":)" + error + R"(}\n"}])");
    Server server(home); // the same of an application that it started itself
    QCOMPARE(resultText(server.call(u"list_vms"_s)), text);
}

void tst_app::noticesThatTheApplicationWentAway_data()
{
    QTest::addColumn<QString>("tool");
    QTest::addColumn<bool>("restarted");
    QTest::newRow("before a relayed call") << u"get_vm"_s << false;
    QTest::newRow("before a relayed call, restarted") << u"get_vm"_s << true;
    QTest::newRow("before launch_app") << u"launch_app"_s << false;
    QTest::newRow("before a graceful quit, restarted") << u"quit_app"_s << true;
}

void tst_app::noticesThatTheApplicationWentAway()
{
    QFETCH(QString, tool);
    QFETCH(bool, restarted);
    const Installation home;
    Server server(home);
    // With something unread on the old connection, which must not be taken for an answer.
    const QByteArray steps
            = R"([{"send":"{\"id\":$id,\"result\":1}\n{\"id\":4,\"result\":\"old\"}\n{\"id\""}])";
    QVERIFY(!isError(server.callSteps(steps)));
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
        QCOMPARE(home.received().last()["method"_L1].toString(), u"quit"_s);
}

void tst_app::quitsTheApplication_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QJsonValue>("mode");
    QTest::addColumn<QByteArray>("result");
    const QByteArray quit = R"({"mode":"graceful","quit":true,"running":false,"wasRunning":true})";
    const QByteArray stays = R"({"mode":"graceful","quit":false,"reason":")"
                             "quit requested but app still running (try mode:force)"
                             R"(","running":true,"wasRunning":true})";
    QTest::newRow("graceful") << u"runs"_s << QJsonValue(u"graceful"_s) << quit;
    QTest::newRow("no mode") << u"runs"_s << QJsonValue(QJsonValue::Undefined) << quit;
    QTest::newRow("mode of another type") << u"runs"_s << QJsonValue(true) << quit;
    QTest::newRow("Force") << u"runs"_s << QJsonValue(u"Force"_s) << quit;
    QTest::newRow("force")
            << u"stays"_s << QJsonValue(u"force"_s)
            << QByteArray(R"({"mode":"force","quit":true,"running":false,"wasRunning":true})");
    QTest::newRow("stays") << u"stays"_s << QJsonValue(u"graceful"_s) << stays;
    QTest::newRow("deaf") << u"deaf"_s << QJsonValue(u"graceful"_s) << stays;
    QTest::newRow("closes and goes later") << u"later"_s << QJsonValue(u"graceful"_s) << quit;
    QTest::newRow("does not run")
            << u"none"_s << QJsonValue(u"force"_s)
            << QByteArray(R"({"quit":false,"reason":"not running","running":false,)"
                          R"("wasRunning":false})");
}

void tst_app::quitsTheApplication()
{
    QFETCH(QString, state);
    QFETCH(QJsonValue, mode);
    QFETCH(QByteArray, result);
    Installation home;
    if (state == "stays"_L1)
        home.script(u"quit"_s, R"([{"send":"{\"id\":$id,\"result\":{}}\n"}])");
    if (state == "later"_L1)
        home.script(u"quit"_s, R"([{"send":"{\"id\":"},{"wait":1500},{"exit":1}])");
    if (state == "deaf"_L1)
        home.environment.insert(u"FAKE_DEAF"_s, u"1"_s);
    std::unique_ptr<Application> app;
    if (state != "none"_L1) {
        app = std::make_unique<Application>(home);
        QVERIFY(app->listening);
    }
    Server server(home);
    QJsonObject arguments { { u"mode"_s, mode } };
    const QJsonObject answer = server.call(u"quit_app"_s, arguments);
    QCOMPARE(compact(resultObject(answer)), result);
    QCOMPARE(isError(answer), result.contains("still running"));
    QCOMPARE(server.finish(), 0);
    QCOMPARE(server.process.readAllStandardError(), "");
}

void tst_app::waitsForAPipeThatDoesNotComeUp()
{
    // One runs and never serves; one is started and cannot, because a folder has the pipe's name.
    // Both take half a minute, so they take it together, and pings are answered all the while.
    const Installation silent;
    const Installation blocked;
    const QString program = silent.path(u"orrery"_s);
    QVERIFY(QFile::remove(program) && QFile::copy(u"/bin/cat"_s, program));
    QVERIFY(QDir().mkdir(blocked.pipePath()));
    Child app(program, {}, silent.environment);
    app.process.start();
    QVERIFY(app.process.waitForStarted());
    Server silentServer(silent);
    Server blockedServer(blocked);
    QElapsedTimer timer;
    timer.start();
    for (Server *server : { &blockedServer, &silentServer }) {
        server->send(toolCall(1, u"list_vms"_s));
        server->send(R"({"id":2,"method":"ping"})");
        QCOMPARE(parsed(server->line())["id"_L1].toInt(), 2);
    }
    for (Server *server : { &blockedServer, &silentServer }) {
        QCOMPARE(resultText(parsed(server->line())),
                 u"Orrery call failed: Orrery started but its control pipe did not come up within "
                 "30 s."_s);
        QVERIFY(timer.elapsed() >= (server == &silentServer ? 33'000 : 30'000));
        QCOMPARE(server->process.readAllStandardError(), "");
    }
    QCOMPARE(silent.applications().size(), 1);
}

void tst_app::saysWhomItMeetsWhenAsked()
{
    Installation home;
    home.environment.insert(u"ORRERY_MCP_DEBUG"_s, u""_s);
    home.script(u"hello"_s, R"([{"exit":1}])");
    const Application app(home);
    Server server(home);
    server.send(toolCall(1, u"quit_app"_s, { { u"mode"_s, u"graceful"_s } }));
    QCOMPARE(server.finish(), 0);
    QCOMPARE(server.process.readAllStandardError(),
             "orrery-mcp: pipe server pid=" + QByteArray::number(app.process.processId())
                     + " image='" + home.path(u"orrery"_s).toLocal8Bit()
                     + "'\norrery-mcp: hello failed: Orrery closed the connection\n");
}

// All combinations of missing standard streams: no socket may land on one.
void tst_app::runsWithoutStandardStreams_data()
{
    QTest::addColumn<int>("closed");
    for (int closed = 0; closed < 8; ++closed)
        QTest::addRow("%d", closed) << closed;
}

void tst_app::runsWithoutStandardStreams()
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
    QCOMPARE(server.finish(), 0);
    QCOMPARE(server.process.readAllStandardOutput().isEmpty(), (closed & 3) != 0);
    QCOMPARE(server.process.readAllStandardError(), "");
    QCOMPARE(home.received().size(), closed & 1 ? 0 : 2);
    for (const QJsonObject &request : home.received())
        QVERIFY(request.contains("method"_L1));
}

void tst_app::runsWithStandardStreamsThatDoNotBlock()
{
    const Installation home;
    const Application app(home);
    Server server(home, [] {
        fcntl(0, F_SETFL, O_NONBLOCK);
        fcntl(1, F_SETFL, O_NONBLOCK);
    });
    QVERIFY(!isError(server.call(u"list_vms"_s))); // after an input that was empty for a while
    const QString large(3'000'000, u'x');
    server.send(toolCall(1, u"get_vm"_s, { { u"large"_s, large } }));
    QTest::qWait(300); // the pipe is full now
    QCOMPARE(resultObject(parsed(server.line()))["params"_L1]["large"_L1], QJsonValue(large));
    QCOMPARE(server.finish(), 0);
}

void tst_app::goesOnWithoutAReader_data()
{
    QTest::addColumn<bool>("full");
    QTest::newRow("closed") << false;
    QTest::newRow("a full device") << true;
}

void tst_app::goesOnWithoutAReader()
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

void tst_app::launchesWithoutLeavingTraces()
{
    const Installation home;
    int inherited = -1;
    {
        Server server(home, [&] { inherited = dup2(0, 200); });
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
    QCOMPARE(getsid(static_cast<pid_t>(apps.first())) == getsid(0), false);
    QFile processStatus(proc + u"status"_s);
    QVERIFY(processStatus.open(QIODevice::ReadOnly));
    QVERIFY(processStatus.readAll().contains("SigIgn:\t0000000000000000"));
}

void tst_app::knowsItsPlaceThroughALink()
{
    // As installed: the link is in bin, the server beside the application.
    const Installation home;
    const QString link = home.path(u"tmp/orrery-mcp"_s);
    QVERIFY(QFile::link(home.path(u"orrery-mcp"_s), link));
    Child server(link, {}, home.environment);
    server.process.start();
    server.process.write(toolCall(1, u"list_vms"_s) + '\n');
    QVERIFY(!isError(parsed(server.line())));
}

void tst_app::knowsItsPlaceAfterItsFileIsGone()
{
    const Installation home;
    Server server(home);
    server.send(R"({"id":1,"method":"initialize"})");
    QVERIFY(!server.line().isEmpty());
    QVERIFY(QFile::remove(home.path(u"orrery-mcp"_s)));
    QVERIFY(!isError(server.call(u"list_vms"_s)));
    QCOMPARE(home.received().first()["params"_L1]["clientPath"_L1].toString(),
             home.path(u"orrery-mcp"_s));
}

void tst_app::startsOneApplicationWithManyServers()
{
    const Installation home;
    std::list<Server> servers;
    for (int i = 0; i < 8; ++i)
        servers.emplace_back(home).send(toolCall(i, u"get_vm"_s, { { u"who"_s, i } }));
    int i = 0;
    for (Server &server : servers) {
        const QJsonObject answer = parsed(server.line());
        QVERIFY2(!isError(answer), compact(answer).constData());
        QCOMPARE(resultObject(answer)["params"_L1]["who"_L1].toInt(), i++);
    }
    QTRY_COMPARE(home.applications().size(), 1);
}

QTEST_GUILESS_MAIN(tst_app)
#include "tst_app.moc"
