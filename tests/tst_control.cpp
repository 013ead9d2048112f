#include "orrery_control.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace OrreryControl;

// Asked before there is a QCoreApplication: this program's own place is not known yet.
static const QString EarlySibling = siblingPath(u"orrery"_s);

class tst_control : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tellsThePeerOfAConnectedSocketOnly()
    {
        const QTemporaryDir dir;
        QLocalServer server;
        QVERIFY(server.listen(dir.filePath(u"pipe"_s)));
        QLocalSocket client;
        QCOMPARE(peerServerPid(client), 0UL);
        client.connectToServer(server.fullServerName());
        QVERIFY(client.waitForConnected() && server.waitForNewConnection(5000));
        const std::unique_ptr<QLocalSocket> accepted(server.nextPendingConnection());
        QCOMPARE(peerServerPid(client), static_cast<unsigned long>(getpid()));
        QCOMPARE(peerClientPid(*accepted), static_cast<unsigned long>(getpid()));
        client.abort();
        QCOMPARE(peerServerPid(client), 0UL);
    }

    void tellsTheImageOfAProcess()
    {
        const auto self = static_cast<unsigned long>(getpid());
        QCOMPARE(processImagePath(self), QCoreApplication::applicationFilePath());
        QCOMPARE(processImagePath(0), QString());
        QCOMPARE(processImagePath(~0UL), QString());

        // A child whose name would mislead who splits /proc/PID/stat at blanks or at the first ')'.
        const QTemporaryDir dir;
        const QString odd = dir.filePath(u"a) R 1 (b"_s);
        QVERIFY(QFile::copy(u"/bin/sleep"_s, odd));
        QProcess child;
        child.start(odd, { u"60"_s });
        QVERIFY(child.waitForStarted());
        const auto pid = static_cast<unsigned long>(child.processId());
        QTRY_COMPARE(processImagePath(pid), odd);
        QCOMPARE(parentImagePath(pid), QCoreApplication::applicationFilePath());
        QVERIFY(QFile::remove(odd));
        QCOMPARE(processImagePath(pid), odd);

        // Dead but not reaped: there is nothing to know any more.
        kill(static_cast<pid_t>(pid), SIGKILL);
        QTRY_COMPARE(processImagePath(pid), QString());
        QCOMPARE(parentImagePath(0), QString());
        child.waitForFinished();
    }

    void trustsOnlyTheSiblingThatExists()
    {
        const auto self = static_cast<unsigned long>(getpid());
        const QString own = QFileInfo(QCoreApplication::applicationFilePath()).fileName();
        QVERIFY(isSiblingProcess(self, exeName(own)));
        QVERIFY(!isSiblingProcess(self, own.toUpper()));
        QVERIFY(!isSiblingProcess(self, u"no such file"_s));
        QVERIFY(!isSiblingProcess(0, u"no such file"_s));
        QCOMPARE(EarlySibling, QString());
    }

    void believesAnAppImageOnlyAroundItself_data()
    {
        QTest::addColumn<QString>("appDir");
        QTest::addColumn<QString>("appImage");
        QTest::addColumn<QString>("expected");
        const QString own = QCoreApplication::applicationDirPath();
        const QString image = QCoreApplication::applicationFilePath();
        QVERIFY(QDir().mkpath(own.chopped(1)));
        QTest::newRow("inside") << own << image << image;
        QTest::newRow("in a folder above") << QFileInfo(own).path() << image << image;
        QTest::newRow("not canonical")
                << own + u"/."_s << own + u"/../tests/tst_control"_s << image;
        QTest::newRow("another folder") << u"/usr"_s << image << QString();
        QTest::newRow("a folder whose name begins alike") << own.chopped(1) << image << QString();
        QTest::newRow("no such folder") << u"/no/such"_s << image << QString();
        QTest::newRow("no such image") << own << u"/no/such"_s << QString();
        QTest::newRow("an image that is a folder") << own << own << QString();
        QTest::newRow("empty folder") << QString() << image << QString();
        QTest::newRow("empty image") << own << QString() << QString();
    }

    void believesAnAppImageOnlyAroundItself()
    {
        QFETCH(QString, appDir);
        QFETCH(QString, appImage);
        qputenv("APPDIR", appDir.toLocal8Bit());
        qputenv("APPIMAGE", appImage.toLocal8Bit());
        QTEST(ownAppImage(), "expected");
        qunsetenv("APPDIR");
        qunsetenv("APPIMAGE");
    }
};

QTEST_GUILESS_MAIN(tst_control)
#include "tst_control.moc"
