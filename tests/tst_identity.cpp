// Whom the server takes for its application: nobody else is talked to, and nothing else started.

#include "harness.h"

#include <sys/stat.h>

namespace {

const QString foreign = u"Orrery call failed: The Orrery control pipe is held by a process that "
                        "isn't Orrery; refusing to talk to it."_s;

// Binds the pipe of this user as another one, before the application binds its own.
void bindAsAnotherUser(const QByteArray &pipePath)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, pipePath.constData(), sizeof address.sun_path);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (setgid(65534) != 0 || setuid(65534) != 0
        || bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || listen(fd, 8) != 0 || chmod(address.sun_path, 0777) != 0)
        _exit(1);
}

// A row: is an application that is started so (by the shell), and to which that happens then, ours?
void row(const char *name, bool ours, const QByteArray &start, const QByteArray &then = {})
{
    QTest::newRow(name) << ours << start << then;
}

} // namespace

class tst_identity : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // An application that is started in some way and serves the pipe: is it taken for ours?
    void knowsItsApplication_data()
    {
        QTest::addColumn<bool>("ours");
        QTest::addColumn<QByteArray>("start"); // in the folder of the installation
        QTest::addColumn<QByteArray>("then");
        row("as installed", true, "exec ./orrery");
        row("by a link elsewhere", true, "ln -s ../orrery other/link; exec other/link");
        row("the sibling is a link", true,
            "mv orrery other/app; ln -s other/app orrery; exec other/app");
        row("replaced while running", true, "exec ./orrery",
            "cp orrery new && rm orrery && mv new orrery");
        row("deleted while running", false, "exec ./orrery", "rm orrery");
        row("name with (deleted)", true, "cp orrery 'orrery (deleted)'; exec ./orrery*d*");
        row("(deleted) in the name", false, "cp orrery 'or (deleted)rery'; exec ./or*d*");
        row("a copy elsewhere", false, "cp orrery other; exec other/orrery");
        row("a hard link elsewhere", false, "ln orrery other; exec other/orrery");
        row("another name", false, "cp orrery orrery2; exec ./orrery2");
        row("by the dynamic loader", false, "exec /lib64/ld-linux-x86-64.so.2 ./orrery");
        row("by a script of its name", false,
            "mv orrery other; printf '#!/bin/sh\\nother/orrery; exit' >orrery; chmod +x orrery;"
            "exec ./orrery");
        // In a folder that anybody may use, as /tmp is. TSAN_OPTIONS names a file of ours alone.
        row("as another user", false, "unset TSAN_OPTIONS; exec ./orrery");
    }

    void knowsItsApplication()
    {
        QFETCH(bool, ours);
        QFETCH(QByteArray, start);
        QFETCH(QByteArray, then);
        const Installation home;
        QVERIFY(home.shell("mkdir other"));
        Child app(u"sh"_s, { u"-c"_s, QString::fromUtf8(start) }, home.environment);
        app.process.setWorkingDirectory(home.folder());
        if (QByteArrayView(QTest::currentDataTag()) == "as another user") {
            if (getuid() != 0)
                QSKIP("needs root");
            QVERIFY(home.shell("chmod 755 . && chmod 1777 tmp"));
            app.process.setChildProcessModifier(
                    [path = home.pipePath().toLocal8Bit()] { bindAsAnotherUser(path); });
        }
        app.process.start();
        QCOMPARE(app.line(), "listening");
        QVERIFY(home.shell(then));

        Server server(home);
        const QJsonValue null = QJsonValue::Null;
        const QJsonObject expected {
            { u"build"_s, ours ? QStringLiteral(BUILD_NUMBER) : null },
            { u"bundleId"_s, u"app.orrery.Orrery"_s },
            { u"pid"_s, ours ? app.process.processId() : null },
            { u"running"_s, ours },
            { u"socketReachable"_s, ours },
            { u"version"_s, ours ? QStringLiteral(PRODUCT_VERSION) : null },
        };
        QCOMPARE(compact(server.status()), compact(expected));
        const QJsonObject answer = server.call(u"list_vms"_s);
        const QString sibling = home.path(u"orrery"_s);
        QCOMPARE(isError(answer), !ours);
        if (!ours)
            QCOMPARE(resultText(answer),
                     QFile::exists(sibling) ? foreign
                                            : u"Orrery call failed: Couldn't start "_s + sibling);
        // Not a byte goes to a holder that is not trusted.
        QCOMPARE(home.shell("test -e received -o -e other/received"), ours);
        QCOMPARE(server.finish(), 0);
    }

    // One AppImage, mounted at two places: the server under one, the application under the other.
    void seesThroughAppImageMounts_data()
    {
        QTest::addColumn<bool>("ours");
        QTest::addColumn<QByteArray>("prepare"); // in the mount of the application
        QTest::addColumn<QByteArray>("then");
        row("the same image", true, "");
        row("deleted since", true, "", "rm orrery");
        row("large", true, "truncate -s 32M orrery \"$OURS/orrery\"");
        row("too large to be compared", false, "truncate -s 257M orrery \"$OURS/orrery\"");
        row("by a link to the image", true, "ln -s \"$OURS/image\" link; image=$PWD/link");
        row("other contents of the same size", false, "truncate -s -1 orrery; printf '#' >>orrery");
        row("other size", false, "printf '#' >>orrery");
        row("another image", false, "image=$OURS/image2");
        row("no image told", false, "image=");
        row("outside of its mount", false, "mount=$OURS"); // a name of the same length
        row("after variables of longer names", true, "before='APPDIRS=x APPIMAGES=x'");
        const QByteArray far = "value=$(printf %0100000d 0); for n in $(seq COUNT); do"
                               " before=\"$before A$n=$value\"; done";
        row("the environment far in", true, QByteArray(far).replace("COUNT", "9"));
        row("the environment too far in", false, QByteArray(far).replace("COUNT", "12"));
        row("the server is not in its mount", false, "");
    }

    void seesThroughAppImageMounts()
    {
        QFETCH(bool, ours);
        QFETCH(QByteArray, prepare);
        QFETCH(QByteArray, then);
        Installation home;
        const Installation theirs;
        home.write(u"image"_s, "an image");
        home.write(u"image2"_s, "another image");
        home.environment.insert(u"OURS"_s, home.folder());
        const bool inside
                = QByteArrayView(QTest::currentDataTag()) != "the server is not in its mount";
        home.environment.insert(u"APPDIR"_s, inside ? home.path(u"."_s) : u"/usr"_s);
        home.environment.insert(u"APPIMAGE"_s, home.path(u"image"_s));
        const QByteArray script = "mount=$PWD image=$OURS/image\n" + prepare
                                  + "\nexec env -i $before APPDIR=\"$mount\" APPIMAGE=\"$image\" "
                                    "TMPDIR=\"$TMPDIR\" \"$PWD/orrery\"";
        Child app(u"sh"_s, { u"-c"_s, QString::fromUtf8(script) }, home.environment);
        app.process.setWorkingDirectory(theirs.folder());
        app.process.start();
        QCOMPARE(app.line(), "listening");
        QVERIFY(theirs.shell(then));
        Server server(home);
        QCOMPARE(server.status()["running"_L1].toBool(), ours);
        if (ours)
            QVERIFY(!isError(server.call(u"list_vms"_s)));
    }

    void startsTheAppImageItRunsFrom()
    {
        for (const bool inside : { true, false }) { // else they are another program's variables
            Installation home;
            home.write(u"image"_s, "#!/bin/sh\n>\"$TMPDIR/started\"\nexec \"$APPDIR/orrery\"\n");
            QVERIFY(home.shell("chmod +x image"));
            home.environment.insert(u"APPDIR"_s, inside ? home.folder() : u"/usr"_s);
            home.environment.insert(u"APPIMAGE"_s, home.path(u"image"_s));
            Server server(home);
            QVERIFY(!isError(server.call(u"list_vms"_s)));
            QCOMPARE(QFile::exists(home.path(u"tmp/started"_s)), inside);
        }
    }

    // What holds the pipe's name while no application runs, and what comes of the first call.
    void survivesWhatHoldsTheName_data()
    {
        QTest::addColumn<QString>("what");
        for (const char *what : { "nothing", "dead socket", "file", "dangling link", "link" })
            QTest::newRow(what) << QString::fromLatin1(what);
    }

    void survivesWhatHoldsTheName()
    {
        QFETCH(QString, what);
        const Installation home;
        const Installation other;
        std::unique_ptr<Application> stranger;
        if (what == "dead socket"_L1)
            QVERIFY(Application(home).listening);
        else if (what == "file"_L1)
            QVERIFY(QFile::copy(QStringLiteral(CONTRACT_PATH), home.pipePath()));
        else if (what != "nothing"_L1)
            QVERIFY(QFile::link(other.pipePath(), home.pipePath()));
        if (what == "link"_L1)
            stranger = std::make_unique<Application>(other);

        Server server(home);
        const QJsonObject answer = server.call(u"list_vms"_s);
        QCOMPARE(isError(answer), stranger != nullptr);
        QVERIFY(!QFile::exists(other.path(u"received"_s)));
        if (stranger)
            QCOMPARE(resultText(answer), foreign);
        else
            QCOMPARE(home.applications().size(), 1);
    }

    // As installed, through a link elsewhere, and while it is upgraded.
    void knowsItsOwnPlace()
    {
        const Installation home;
        const QString link = home.path(u"tmp/orrery-mcp"_s);
        QVERIFY(QFile::link(home.path(u"orrery-mcp"_s), link));
        Child server(link, {}, home.environment);
        server.process.start();
        server.process.write("{\"id\":1,\"method\":\"initialize\"}\n");
        QVERIFY(!server.line().isEmpty());
        QVERIFY(QFile::remove(home.path(u"orrery-mcp"_s)));
        server.process.write(toolCall(1, u"list_vms"_s) + '\n');
        QVERIFY(!isError(parsed(server.line())));
        QCOMPARE(home.received().first()["params"_L1]["clientPath"_L1].toString(),
                 home.path(u"orrery-mcp"_s));
    }

    void saysWhomItMeetsWhenAsked()
    {
        HastyInstallation home;
        home.environment.insert(u"ORRERY_MCP_DEBUG"_s, u""_s);
        const QString copy = home.path(u"copy"_s);
        QVERIFY(QFile::copy(home.path(u"orrery"_s), copy));
        Server server(home);
        QByteArray expected;
        const auto met = [&](const Application &app, const QString &image) {
            return "orrery-mcp: pipe server pid=" + QByteArray::number(app.process.processId())
                   + " image='" + image.toLocal8Bit() + "'\n";
        };
        {
            const Application stranger(home, copy);
            QCOMPARE(resultText(server.call(u"list_vms"_s)), foreign);
            expected += met(stranger, copy);
            QTRY_COMPARE(home.read(u"starts"_s), "xx"); // ours has given way to the stranger,
            QTRY_COMPARE(home.applications().size(), 1); // and is gone
        }
        // A later call that meets nobody says so: a folder keeps ours from serving the pipe.
        QVERIFY(QFile::remove(home.pipePath()) && QDir().mkdir(home.pipePath()));
        QCOMPARE(resultText(server.call(u"list_vms"_s)), notUp);
        QVERIFY(QDir().rmdir(home.pipePath()));
        home.script(u"hello"_s, R"([{"close":1}])");
        const Application app(home);
        // It runs, so it is not started again, which would fail now in another way.
        QVERIFY(QFile::setPermissions(home.path(u"orrery"_s), QFile::ReadOwner));
        QCOMPARE(resultText(server.call(u"list_vms"_s)), notUp);
        expected += (met(app, home.path(u"orrery"_s))
                     + "orrery-mcp: hello failed: Orrery closed the connection\n")
                            .repeated(2);
        QCOMPARE(server.finish(), 0);
        QCOMPARE(server.process.readAllStandardError(), expected);
    }
};

QTEST_GUILESS_MAIN(tst_identity)
#include "tst_identity.moc"
