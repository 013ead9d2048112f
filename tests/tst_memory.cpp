// What large messages may cost: what is refused, and when memory goes back.

#include "harness.h"
#include "server_limits.h"

#include <sys/resource.h>

namespace {

// Steps that send a file of the installation between two texts.
QByteArray sendFile(const QByteArray &before, const QString &file, const QByteArray &after)
{
    const QByteArray step = compact({ { u"file"_s, file } });
    return sendStep(before, ',' + step + ',' + sendStep(after).sliced(1).chopped(1));
}

// Steps that answer with a string of that many bytes.
QByteArray sendLongString(int bytes)
{
    return "[{\"send\":\"{\\\"id\\\":$id,\\\"result\\\":\\\"\"},{\"fill\":"
           + QByteArray::number(bytes) + "},{\"send\":\"\\\"}\\n\"}]";
}

// Those for which nothing is read from a disk.
qint64 pageFaults(const Server &server)
{
    return server.proc(u"stat"_s).split(' ').value(9).toLongLong();
}

// Calls that wait for one another, and the answers to all.
void queueCalls(Server &server, int count)
{
    server.process.write((toolCall(1, u"list_vms"_s) + '\n').repeated(count));
    while (count-- > 0)
        QVERIFY(!server.line().isEmpty());
}

} // namespace

class tst_memory : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What would take too much memory is refused by itself, also where there is little to take.
    void refusesWhatCostsTooMuch_data()
    {
        QTest::addColumn<QByteArray>("before"); // $id is in what the application sends
        QTest::addColumn<QByteArray>("piece");
        QTest::addColumn<int>("times");
        QTest::addColumn<QByteArray>("after");
        QTest::addColumn<QByteArray>("answer"); // none: no error
        const auto row = [](const char *name, const QByteArray &before, const QByteArray &piece,
                            int times, const QByteArray &after, const QByteArray &answer) {
            QTest::newRow(name) << before << piece << times << after << answer;
        };
        const auto failed = [](const QString &why) {
            const QJsonObject text { { u"text"_s, "Orrery call failed: "_L1 + why },
                                     { u"type"_s, u"text"_s } };
            const QJsonObject result { { u"content"_s, QJsonArray { text } },
                                       { u"isError"_s, true } };
            return compact({ { u"id"_s, 1 }, { u"jsonrpc"_s, u"2.0"_s }, { u"result"_s, result } });
        };
        const auto refused = [](const QJsonValue &id, int code, const QString &message) {
            const QJsonObject error { { u"code"_s, code }, { u"message"_s, message } };
            return compact({ { u"error"_s, error }, { u"id"_s, id }, { u"jsonrpc"_s, u"2.0"_s } });
        };
        const QByteArray tooLong
                = failed(u"Orrery's answer makes a message of more than 512 MiB"_s);
        const QByteArray result = "{\"id\":$id,\"result\":[";
        const QByteArray small = QByteArray("[[1]],").repeated(10'000);
        row("many small values", result, small, 400, "1]}\n",
            failed(u"Orrery sent a line that takes more than 1.25 GiB of memory to read"_s));
        row("many small values of the client", "{\"id\":1,\"method\":\"ping\",\"params\":[", small,
            400, "1]}", refused(QJsonValue::Null, -32700, u"Parse error"_s));
        row("levels that are indented", result,
            QByteArray(1000, '[') + '1' + QByteArray(1000, ']') + ',', 200, "1]}\n", tooLong);
        row("neither, though brackets are in it", result + '"', small, 400, "\"]}\n", {});
        // Each becomes \u0001.
        const auto growing = [&row](const char *name, const QByteArray &before,
                                    const QByteArray &after, const QByteArray &answer) {
            row(name, before, "\1", 95'000'000, after, answer);
        };
        growing("an error that grows", "{\"id\":$id,\"error\":{\"message\":\"", "\"}}\n", tooLong);
        growing("an event that grows", "{\"method\":\"before\"}\n{\"method\":\"", "\"}\n" + Answer,
                failed(u"Orrery sent an event that makes a message of more than 512 MiB"_s));
        const QByteArrayList call = toolCall(1, u"get_vm"_s, { { u"a"_s, u"^"_s } }).split('^');
        growing("an argument that grows", call.first(), call.last(),
                failed(u"the request is longer than 512 MiB"_s));
        growing("a method that grows", "{\"id\":1,\"method\":\"", "\"}",
                refused(1, -32601, "Method not found: "_L1 + QString(46, u'\1')));
        growing("an id that grows", "{\"method\":\"ping\",\"id\":\"", "\"}",
                refused(QJsonValue::Null, -32600, u"Invalid Request: the id is too long"_s));
    }

    void refusesWhatCostsTooMuch()
    {
        QFETCH(QByteArray, before);
        QFETCH(QByteArray, piece);
        QFETCH(int, times);
        QFETCH(QByteArray, after);
        QFETCH(QByteArray, answer);
        const Installation home;
        const Application app(home);
        Server server(home, [] {
            const rlimit limit { 2UL << 30, 2UL << 30 };
            if (!Sanitized)
                setrlimit(RLIMIT_AS, &limit);
        });
        home.write(u"pieces"_s, piece.repeated(times));
        const bool isRelayed = (before + after).contains("$id");
        server.send(isRelayed ? toolCall(1, u"get_vm"_s,
                                         withSteps(sendFile(before, u"pieces"_s, after)))
                              : before + piece.repeated(times) + after);
        if (before.contains("before"))
            QCOMPARE(server.line(), eventLine("{\"event\":\"before\"}"));
        const QByteArray line = server.line();
        if (answer.isEmpty())
            QVERIFY(!isError(parsed(line)));
        else
            QCOMPARE(line, answer);
        QVERIFY(!isError(server.call(u"get_vm"_s)));
    }

    // Whoever handled it.
    void givesMemoryBack_data()
    {
        QTest::addColumn<QByteArray>("sent");
        const QByteArray objects = QByteArray(R"({"a":"b"},)").repeated(400'000);
        const QByteArray argument = R"({"name":"get_vm","arguments":{"a":[)" + objects + "1]}}";
        const auto row
                = [](const char *name, const QByteArray &sent) { QTest::newRow(name) << sent; };
        row("garbage while a call waits",
            toolCall(1, u"get_vm"_s, withSteps(R"([{"wait":90000}])")) + "\n[" + objects + '\n');
        row("garbage", '[' + objects + '\n');
        row("a ping", R"({"id":1,"method":"ping","params":)" + argument + "}\n");
        row("an answer with an event behind it",
            toolCall(1, u"get_vm"_s,
                     withSteps(sendStep("{\"id\":$id,\"result\":[" + objects
                                        + "1]}\n{\"method\":\"e\"}\n")))
                    + '\n');
        row("a long string",
            toolCall(1, u"get_vm"_s, withSteps(sendLongString(50'000'000))) + '\n');
        // Notifications, which are not answered.
        row("a queue",
            toolCall(1, u"get_vm"_s,
                     withSteps(sendStep("", R"(,{"wait":1000},)"
                                                    + sendStep(Answer).sliced(1).chopped(1))))
                    + '\n'
                    + ("{\"method\":\"x\",\"params\":[" + objects.first(10 * 200) + "1]}\n")
                              .repeated(1'500));
        row("a request with the start of the next behind it",
            R"({"id":1,"method":"tools/call","params":)" + argument + "}\n{\"id\":2,\"method\":");
    }

    void givesMemoryBack()
    {
        QFETCH(QByteArray, sent);
        if (Sanitized)
            QSKIP("the sanitizers keep freed memory, so that they see it used");
        const Installation home;
        const Application app(home);
        Server server(home);
        QVERIFY(!isError(server.call(u"get_vm"_s)));
        const qint64 before = server.residentBytes();
        server.process.write(sent);
        QVERIFY(!server.line().isEmpty());
        if (!sent.endsWith('\n'))
            server.send("\"ping\"}");
        QTRY_VERIFY_WITH_TIMEOUT(server.residentBytes() < before + 40'000'000, PatienceMs);
    }

    // What many queued calls left free does not add to the peak.
    void makesRoomForALargeMessage()
    {
        if (Sanitized)
            QSKIP("the sanitizers keep freed memory, so that they see it used");
        const Installation home;
        const Application app(home);
        Server server(home);
        const auto peakKiB = [&] {
            const QByteArray status = server.proc(u"status"_s);
            return status.sliced(status.indexOf("VmHWM:") + 6).simplified().split(' ')[0].toInt();
        };
        QVERIFY(!isError(server.call(u"get_vm"_s)));
        const int before = peakKiB();
        queueCalls(server, 20'000);
        QVERIFY(!isError(server.callSteps(sendLongString(16'000'000))));
        QVERIFY2(peakKiB() < before + 25'000, qPrintable(QString::number(peakKiB() - before)));
    }

    void keepsMemoryWhileLargeAnswersCome()
    {
        if (Sanitized)
            QSKIP("the sanitizers have an allocator of their own");
        const Installation home;
        home.script(u"get_vm"_s,
                    sendStep("{\"id\":$id,\"result\":["
                             + QByteArray(R"({"a":"b"},)").repeated(45'000) + "1]}\n"));
        const Application app(home);
        Server server(home);
        queueCalls(server, 40'000); // what they leave free goes back, and counts no more
        qint64 fewest = INT_MAX; // page faults; the machine may be busy meanwhile
        for (int i = 0; i < 10; ++i) {
            const qint64 before = pageFaults(server);
            QVERIFY(!isError(server.call(u"get_vm"_s)));
            fewest = std::min(fewest, pageFaults(server) - before);
        }
        QVERIFY2(fewest < 300, qPrintable(QString::number(fewest)));
    }

    // In all rounds but one: the machine may be busy.
    void answersPingsWhileItHandlesALargeAnswer()
    {
        if (Sanitized)
            QSKIP("the sanitizers have an allocator of their own");
        const Installation home;
        const Application app(home);
        Server server(home);
        home.write(u"rows"_s, QByteArray(R"({"a":"b"},)").repeated(1'500'000));
        std::vector<double> waits; // the longest for a ping in each round, as a share of it
        for (int round = 0; round < 5; ++round) {
            QElapsedTimer whole;
            whole.start();
            server.send(toolCall(1, u"get_vm"_s,
                                 withSteps(sendFile("{\"id\":$id,\"result\":{\"x\":[", u"rows"_s,
                                                    "1]},\"error\":0}\n"))));
            qint64 worst = 0;
            for (bool answered = false; !answered;) {
                QElapsedTimer timer;
                timer.start();
                server.send(R"({"id":2,"method":"ping"})");
                QByteArray line = server.line();
                worst = std::max(worst, timer.elapsed());
                if ((answered = line.startsWith(R"({"id":1,)")))
                    line = server.line();
                QCOMPARE(line, R"({"id":2,"jsonrpc":"2.0","result":{}})");
            }
            waits.push_back(double(worst) / double(whole.elapsed()));
        }
        std::sort(waits.begin(), waits.end());
        QVERIFY2(waits[3] <= 0.08, qPrintable(QString::number(waits[3])));
    }

    // However many events an application sends between two calls.
    void readsNotFarAhead()
    {
        if (Sanitized)
            QSKIP("the sanitizers keep freed memory, so that they see it used");
        const Installation home;
        const Application app(home);
        Server server(home);
        const QByteArray event
                = compact({ { u"send"_s, QString(100'000, u'x') }, { u"times"_s, 10'000 } });
        QVERIFY(!isError(server.callSteps(sendStep(Answer, ',' + event))));
        const qint64 before = server.residentBytes();
        for (int i = 0; i < 3'000; ++i) {
            server.send(R"({"id":5,"method":"initialize"})");
            QVERIFY(!server.line().isEmpty());
        }
        QVERIFY(server.residentBytes() < before + 10'000'000);
    }
};

QTEST_GUILESS_MAIN(tst_memory)
#include "tst_memory.moc"
