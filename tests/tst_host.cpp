#include "host_process.h"

#include <QProcess>
#include <QTest>

#include <csignal>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace HostProcess;

class tst_host : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void anEmptyHandleIsQuiet_data()
    {
        QTest::addColumn<unsigned long>("pid");
        QTest::newRow("no process") << 0UL;
        QTest::newRow("unused") << 0x7ffffffeUL;
        QTest::newRow("own id when cut to 32 bits")
                << (1UL << 32) + static_cast<unsigned long>(getpid());
    }

    void anEmptyHandleIsQuiet()
    {
        QFETCH(unsigned long, pid);
        Handle handle(pid);
        QVERIFY(!handle.isValid());
        handle.terminate();
        QVERIFY(!handle.waitExit(0));
    }

    void waitsForAProcessAndKillsIt()
    {
        QProcess child;
        child.start(u"sleep"_s, { u"60"_s });
        QVERIFY(child.waitForStarted());
        const auto pid = static_cast<unsigned long>(child.processId());
        const int lowest = dup(0);
        close(lowest);
        QVERIFY(Handle(pid).isValid());
        QCOMPARE(dup(0), lowest); // it has given back its descriptor, and no other
        Handle handle(pid);
        QVERIFY(handle.isValid());
        QVERIFY(!handle.waitExit(10));
        handle.terminate();
        QVERIFY(handle.waitExit(5000));
        QVERIFY(child.waitForFinished());
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);
        QCOMPARE(child.exitCode(), SIGKILL);
        // It means that process for good, even now that its id may be used again.
        QVERIFY(handle.waitExit(0));
    }
};

QTEST_GUILESS_MAIN(tst_host)
#include "tst_host.moc"
