// The server as its client sees it: the protocol, and what becomes of relayed calls.

#include "harness.h"

#include <QRandomGenerator>

namespace {

QByteArray eventLine(const QByteArray &data)
{
    return R"({"jsonrpc":"2.0","method":"notifications/message","params":{"data":)" + data
           + R"(,"level":"info","logger":"orrery"}})";
}

QByteArray cancelled(const QByteArray &requestId)
{
    return R"({"method":"notifications/cancelled","params":{"requestId":)" + requestId + "}}";
}

// Rows from a file of transcripts: "# name", then lines that the client sends (>), that the
// application sends (=) and that the client gets (<).
void addTranscripts(const QString &path)
{
    QTest::addColumn<QByteArray>("sent");
    QTest::addColumn<QByteArray>("relayed");
    QTest::addColumn<QByteArray>("answer");
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QByteArray name;
    QHash<char, QByteArray> lines;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        if (line.startsWith("# "))
            name = line.sliced(2).trimmed();
        else if (line != "\n")
            lines[line.front()] += line.sliced(2);
        if ((line == "\n" || file.atEnd()) && !lines.isEmpty()) {
            QTest::newRow(name.constData()) << lines['>'] << lines['='] << lines['<'];
            lines.clear();
        }
    }
}

} // namespace

class tst_server : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answersLines_data();
    void answersLines();
    void listsTheCatalogue();
    void relaysACall_data();
    void relaysACall();
    void sendsWhatTheClientSent_data();
    void sendsWhatTheClientSent();
    void introducesItself_data();
    void introducesItself();
    void failsAndConnectsAgain_data();
    void failsAndConnectsAgain();
    void survivesACutAnywhere_data();
    void survivesACutAnywhere();
    void survivesDamagedLines_data();
    void survivesDamagedLines();
    void acceptsLargeLines();
    void anApplicationThatDoesNotReadFailsTheWrite();
    void relaysALargeRequestAndAnswer();
    void eventsAfterTheAnswerComeWithTheNextCall();
    void cancelsTheCallInFlightOnly_data();
    void cancelsTheCallInFlightOnly();
    void finishesWhatIsQueuedAfterTheEndOfInput();
    void passesManyEventsOnInOrder();
};

void tst_server::answersLines_data()
{
    addTranscripts(QFINDTESTDATA("protocol.txt"));
    const QByteArray pong = R"({"id":1,"jsonrpc":"2.0","result":{}})"
                            "\n";
    const QByteArray parseError
            = R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})"
              "\n";
    const auto row = [](const char *name, const QByteArray &sent, const QByteArray &answer) {
        QTest::newRow(name) << sent << QByteArray() << answer;
    };
    row("no input", "", "");
    row("empty lines", "\n\r\n\n", "");
    row("carriage returns", "{\"id\":1,\r\"method\":\"ping\"}\r\n", pong);
    row("no line feed at the end", R"({"id":1,"method":"ping"})", pong);
    row("invalid UTF-8", "{\"id\":1,\"method\":\"ping\",\"a\":\"\xff\xc3\"}\n", parseError);
    row("nested too deep", "{\"id\":" + QByteArray(100'000, '[') + "\n", parseError);
}

void tst_server::answersLines()
{
    QFETCH(QByteArray, sent);
    QFETCH(QByteArray, answer);
    const Installation home;
    Server server(home);
    server.process.write(sent);
    QCOMPARE(server.finish(), 0);
    QCOMPARE(server.process.readAllStandardOutput(), answer);
    QCOMPARE(server.process.readAllStandardError(), "");
    QCOMPARE(home.applications().size(), 0);
}

void tst_server::listsTheCatalogue()
{
    QFile contract(QStringLiteral(CONTRACT_PATH));
    QVERIFY(contract.open(QIODevice::ReadOnly));
    const QJsonObject tools { { u"tools"_s,
                                QJsonDocument::fromJson(contract.readAll())["tools"_L1] } };
    const Installation home;
    Server server(home);
    server.send(R"({"id":1,"method":"tools/list","params":{"cursor":"x"}})");
    QCOMPARE(server.line(), R"({"id":1,"jsonrpc":"2.0","result":)" + compact(tools) + "}");
    QCOMPARE(server.finish(), 0);
}

void tst_server::relaysACall_data() { addTranscripts(QFINDTESTDATA("relay.txt")); }

void tst_server::relaysACall()
{
    QFETCH(QByteArray, relayed);
    QFETCH(QByteArray, answer);
    const Installation home;
    const Application app(home);
    Server server(home);
    const QJsonObject step { { u"send"_s, QString::fromUtf8(relayed) } };
    server.send(toolCall(7, u"start_vm"_s, { { u"steps"_s, QJsonArray { step } } }));
    QCOMPARE(server.finish(), 0);
    QCOMPARE(server.process.readAllStandardOutput(), answer);
}

void tst_server::sendsWhatTheClientSent_data()
{
    QTest::addColumn<QByteArray>("arguments");
    QTest::addColumn<QByteArray>("params");
    QTest::newRow("object") << QByteArray(R"({"b":[1,2.5],"a":"é\n"})")
                            << QByteArray(R"({"a":"é\n","b":[1,2.5]})");
    QTest::newRow("array") << QByteArray("[1]") << QByteArray("{}");
    QTest::newRow("string") << QByteArray("\"x\"") << QByteArray("{}");
    QTest::newRow("null") << QByteArray("null") << QByteArray("{}");
}

void tst_server::sendsWhatTheClientSent()
{
    QFETCH(QByteArray, arguments);
    QFETCH(QByteArray, params);
    const Installation home;
    const Application app(home);
    Server server(home);
    server.send(R"({"id":1,"method":"tools/call","params":{"name":"job_wait","arguments":)"
                + arguments + "}}");
    QVERIFY(!server.line().isEmpty());
    QCOMPARE(home.read(u"received"_s).split('\n').value(1),
             R"({"id":2,"method":"job_wait","params":)" + params + "}");
}

void tst_server::introducesItself_data()
{
    QTest::addColumn<QString>("orreryClient"); // null: not set
    QTest::addColumn<QString>("clientNameVariable");
    QTest::addColumn<QByteArray>("initializations"); // the names that the client gave in turn
    QTest::addColumn<QString>("expected");
    const QString none;
    const QString empty = u""_s;
    QTest::newRow("nothing known") << none << none << QByteArray() << u"MCP client"_s;
    QTest::newRow("by initialize") << none << none << QByteArray("\"abc\"") << u"abc"_s;
    QTest::newRow("by the last initialize")
            << none << none << QByteArray("\"abc\",7") << u"MCP client"_s;
    QTest::newRow("by the variable") << none << u"v"_s << QByteArray("\"abc\"") << u"v"_s;
    QTest::newRow("by the empty variable") << none << empty << QByteArray("\"abc\"") << empty;
    QTest::newRow("by the own variable") << u"o"_s << u"v"_s << QByteArray("\"abc\"") << u"o"_s;
    QTest::newRow("by the empty own variable") << empty << u"v"_s << QByteArray("\"abc\"") << empty;
}

void tst_server::introducesItself()
{
    QFETCH(QString, orreryClient);
    QFETCH(QString, clientNameVariable);
    QFETCH(QByteArray, initializations);
    QFETCH(QString, expected);
    Installation home;
    const Application app(home);
    if (!orreryClient.isNull())
        home.environment.insert(u"ORRERY_MCP_CLIENT"_s, orreryClient);
    if (!clientNameVariable.isNull())
        home.environment.insert(u"MCP_CLIENT_NAME"_s, clientNameVariable);
    Server server(home);
    for (const QByteArray &name : initializations.split(','))
        server.send(R"({"id":1,"method":"initialize","params":{"clientInfo":{"name":)"
                    + (name.isEmpty() ? "null" : name) + "}}}");
    QVERIFY(!server.call(u"list_vms"_s).isEmpty());
    const QJsonObject hello { { u"clientName"_s, expected },
                              { u"clientPath"_s, home.path(u"orrery-mcp"_s) },
                              { u"pid"_s, server.process.processId() },
                              { u"protocolVersion"_s, 1 } };
    QCOMPARE(home.read(u"received"_s).split('\n').value(0),
             R"({"id":1,"method":"hello","params":)" + compact(hello) + "}");
}

// How a call fails, and that the next one starts afresh.
void tst_server::failsAndConnectsAgain_data()
{
    QTest::addColumn<QByteArray>("steps");
    QTest::addColumn<QString>("text");
    const QString closed = u"Orrery call failed: Orrery closed the connection"_s;
    QTest::newRow("closed") << QByteArray(R"([{"close":1}])") << closed;
    QTest::newRow("closed within a line")
            << QByteArray(R"([{"send":"{\"id\":$id,\"result\":{}}"},{"close":1}])") << closed;
    QTest::newRow("ended within a line")
            << QByteArray(R"([{"send":"{\"id\":$id,"},{"exit":1}])") << closed;
    QTest::newRow("answered and closed")
            << QByteArray(R"([{"send":"{\"id\":$id,\"result\":\"last words\"}\n"},{"close":1}])")
            << u"last words"_s;
    QTest::newRow("answered, more, and ended") << QByteArray(
            R"([{"send":"{\"id\":$id,\"result\":\"last words\"}\n{\"met"},{"exit":1}])")
                                               << u"last words"_s;
    QTest::newRow("an endless line")
            << QByteArray(R"([{"fill":270000000}])")
            << u"Orrery call failed: Orrery sent a line of more than 256 MiB"_s;
    QTest::newRow("a line too long, with its end")
            << QByteArray(R"([{"fill":268435457},{"send":"\n"}])")
            << u"Orrery call failed: Orrery sent a line of more than 256 MiB"_s;
}

void tst_server::failsAndConnectsAgain()
{
    QFETCH(QByteArray, steps);
    QFETCH(QString, text);
    const Installation home;
    Application app(home);
    const qsizetype idle = app.openFiles();
    Server server(home);
    QCOMPARE(resultText(server.callSteps(steps)), text);
    if (steps.contains("exit"))
        QVERIFY(app.process.waitForFinished());
    QTRY_VERIFY(app.openFiles() <= idle); // it has closed its end
    // Launched anew where it ended; the new connection begins with a hello and an empty buffer.
    const QJsonObject next
            = server.callSteps(R"([{"send":"{\"id\":$id,\"result\":\"fresh\"}\n"}])");
    QCOMPARE(resultText(next), u"fresh"_s);
    QStringList methods;
    QList<int> ids;
    for (const QJsonObject &request : home.received()) {
        methods += request["method"_L1].toString();
        ids += request["id"_L1].toInt();
    }
    QCOMPARE(methods, (QStringList { u"hello"_s, u"get_vm"_s, u"hello"_s, u"get_vm"_s }));
    QCOMPARE(ids, (QList<int> { 1, 2, 3, 4 }));
}

// The application's answer cut at every byte, and then nothing more.
void tst_server::survivesACutAnywhere_data()
{
    QTest::addColumn<QByteArray>("end");
    QTest::addColumn<QString>("text");
    QTest::newRow("closed") << QByteArray(R"({"close":1})")
                            << u"Orrery call failed: Orrery closed the connection"_s;
    QTest::newRow("ended") << QByteArray(R"({"exit":1})")
                           << u"Orrery call failed: Orrery closed the connection"_s;
    QTest::newRow("stalled, and cancelled")
            << QByteArray(R"({"wait":100000})") << u"Orrery call failed: cancelled by the client"_s;
}

void tst_server::survivesACutAnywhere()
{
    QFETCH(QByteArray, end);
    QFETCH(QString, text);
    const Installation home;
    Server server(home);
    const QString answer = u"{\"id\":$id,\"result\":\"é\"}"_s;
    for (qsizetype cut = 0; cut <= answer.size(); ++cut) {
        const QJsonArray steps { QJsonObject { { u"send"_s, u"{\"method\":\"e\"}\n"_s } },
                                 QJsonObject { { u"send"_s, answer.first(cut) } },
                                 QJsonDocument::fromJson(end).object() };
        server.send(toolCall(cut, u"get_vm"_s, { { u"steps"_s, steps } }));
        QCOMPARE(server.line(), eventLine(R"({"event":"e"})"));
        if (end.contains("wait"))
            server.send(cancelled(QByteArray::number(cut)));
        const QJsonObject failed = parsed(server.line());
        QCOMPARE(failed["id"_L1].toInteger(), cut);
        QCOMPARE(resultText(failed), text);
        home.endApplications();
        // Nothing of the old connection reaches the new one.
        const QString next = resultText(server.call(u"get_vm"_s));
        QVERIFY2(next.contains(u"\"get_vm\""_s), qPrintable(next));
    }
}

// Lines that were something once, damaged at random but the same in every run.
void tst_server::survivesDamagedLines_data()
{
    QTest::addColumn<bool>("fromClient");
    QTest::newRow("from the client") << true;
    QTest::newRow("from the application") << false;
}

void tst_server::survivesDamagedLines()
{
    QFETCH(bool, fromClient);
    constexpr int Count = 10'000;
    const QByteArray good = R"({"id":9,"method":"tools/call","params":{"name":"x","a":[1,"é\n"]}})";
    QRandomGenerator random(1);
    QByteArray lines;
    int answers = 0;
    for (int i = 0; i < Count; ++i) {
        QByteArray line = good;
        for (quint32 n = random.bounded(4); n > 0; --n)
            line[random.bounded(line.size())] = char(random.bounded(1, 256));
        line.replace('\n', ' ').replace('\r', ' ').replace('$', ' ');
        lines += line + '\n';
        const QJsonDocument document = QJsonDocument::fromJson(line);
        answers += !document.isObject() || document.object().contains("id"_L1);
    }
    const Installation home;
    const Application app(home);
    Server server(home);
    if (fromClient) {
        server.process.write(lines);
    } else {
        home.write(u"raw"_s, lines); // each is an event: there is no "result" or "error" in it
        server.send(toolCall(9, u"get_vm"_s,
                             withSteps(R"([{"file":"raw"},)"
                                       R"({"send":"{\"id\":$id,\"result\":1}\n"}])")));
    }
    QCOMPARE(server.finish(), 0);
    QList<QByteArray> written = server.process.readAllStandardOutput().split('\n');
    QCOMPARE(written.takeLast(), "");
    QCOMPARE(written.size(), fromClient ? answers : Count + 1);
    for (const QByteArray &line : written)
        QVERIFY2(QJsonDocument::fromJson(line).isObject(), line.constData());
}

void tst_server::acceptsLargeLines()
{
    const Installation home;
    const Application app(home);
    Server server(home);
    server.send(R"({"id":0,"method":"ping","x":")" + QByteArray(64 << 20, 'x') + "\"}");
    QCOMPARE(parsed(server.line())["id"_L1], QJsonValue(0));
    const QByteArray steps = R"([{"fill":268435456},{"send":"\n{\"id\":$id,\"result\":1}\n"}])";
    server.send(toolCall(1, u"get_vm"_s, withSteps(steps)));
    QCOMPARE(server.line(), eventLine("{}"));
    QCOMPARE(resultText(parsed(server.line())), u"1"_s);
}

void tst_server::anApplicationThatDoesNotReadFailsTheWrite()
{
    const Installation home;
    const Application app(home);
    Server server(home);
    // The first call is answered, then nothing is read while the second, large one comes.
    const QByteArray steps = R"([{"send":"{\"id\":$id,\"result\":1}\n"},{"wait":8000}])";
    QCOMPARE(resultText(server.callSteps(steps)), u"1"_s);
    QCOMPARE(resultText(server.call(u"get_vm"_s, { { u"large"_s, QString(600'000, u'x') } })),
             u"Orrery call failed: write to Orrery failed"_s);
    QVERIFY(!server.call(u"get_vm"_s)["result"_L1]["isError"_L1].toBool());
}

void tst_server::relaysALargeRequestAndAnswer()
{
    const Installation home;
    const Application app(home);
    Server server(home);
    const QString large(4'000'000, u'x');
    // The fake answers with the request: both directions are full at the same time.
    QCOMPARE(resultObject(
                     server.call(u"get_vm"_s, { { u"large"_s, large } }))["params"_L1]["large"_L1],
             QJsonValue(large));
}

void tst_server::eventsAfterTheAnswerComeWithTheNextCall()
{
    const Installation home;
    const Application app(home);
    Server server(home);
    const QByteArray steps
            = R"([{"send":"{\"id\":$id,\"result\":1}\n{\"method\":\"late\"}\n{\"meth"}])";
    QCOMPARE(resultText(server.callSteps(steps)), u"1"_s);
    server.send(R"({"id":5,"method":"initialize"})"); // runs no events into the void
    QVERIFY(!server.line().isEmpty());
    const QByteArray rest = R"([{"send":"od\":\"rest\"}\n{\"id\":$id,\"result\":2}\n"}])";
    server.send(toolCall(6, u"get_vm"_s, withSteps(rest)));
    QCOMPARE(server.line(), eventLine(R"({"event":"late"})"));
    QCOMPARE(server.line(), eventLine(R"({"event":"rest"})"));
    QCOMPARE(resultText(parsed(server.line())), u"2"_s);
}

void tst_server::cancelsTheCallInFlightOnly_data()
{
    QTest::addColumn<QJsonValue>("id");
    QTest::addColumn<QByteArray>("requestId");
    QTest::addColumn<bool>("ends");
    QTest::newRow("named") << QJsonValue(5) << QByteArray("5") << true;
    QTest::newRow("named, with a fraction") << QJsonValue(5) << QByteArray("5.0") << true;
    QTest::newRow("another") << QJsonValue(5) << QByteArray("6") << false;
    QTest::newRow("as a string") << QJsonValue(5) << QByteArray("\"5\"") << false;
    QTest::newRow("string id") << QJsonValue(u"5"_s) << QByteArray("\"5\"") << false;
    QTest::newRow("string id, as -1") << QJsonValue(u"5"_s) << QByteArray("-1") << false;
    QTest::newRow("id -1") << QJsonValue(-1) << QByteArray("-1") << false;
}

void tst_server::cancelsTheCallInFlightOnly()
{
    QFETCH(QJsonValue, id);
    QFETCH(QByteArray, requestId);
    QFETCH(bool, ends);
    const Installation home;
    const Application app(home);
    Server server(home);
    const QJsonArray steps { QJsonObject { { u"send"_s, u"{\"method\":\"begun\"}\n"_s } },
                             QJsonObject { { u"wait"_s, ends ? 100'000 : 1'000 } },
                             QJsonObject { { u"send"_s, u"{\"id\":$id,\"result\":1}\n"_s } } };
    server.send(toolCall(id, u"job_wait"_s, { { u"steps"_s, steps } }));
    QCOMPARE(server.line(), eventLine(R"({"event":"begun"})"));
    server.send(R"({"id":"during","method":"ping"})");
    QCOMPARE(parsed(server.line())["id"_L1].toString(), u"during"_s);
    server.send(cancelled(requestId));
    QCOMPARE(resultText(parsed(server.line())),
             ends ? u"Orrery call failed: cancelled by the client"_s : u"1"_s);
    // A cancellation never reaches a later call, its own late coming included.
    server.send(cancelled(requestId));
    home.endApplications();
    QVERIFY(!server.call(u"get_vm"_s)["result"_L1]["isError"_L1].toBool());
}

void tst_server::finishesWhatIsQueuedAfterTheEndOfInput()
{
    const Installation home;
    const Application app(home);
    Server server(home);
    const QByteArray steps = R"([{"wait":300},{"send":"{\"id\":$id,\"result\":1}\n"}])";
    for (int id = 1; id <= 3; ++id)
        server.send(toolCall(id, u"get_vm"_s, withSteps(steps)));
    QCOMPARE(server.finish(), 0);
    const QList<QByteArray> lines = server.process.readAllStandardOutput().split('\n');
    QCOMPARE(lines.size(), 4);
    for (int i = 0; i < 3; ++i)
        QCOMPARE(parsed(lines[i])["id"_L1].toInt(), i + 1);
}

void tst_server::passesManyEventsOnInOrder()
{
    const Installation home;
    const Application app(home);
    Server server(home);
    constexpr int Count = 100'000;
    const QByteArray steps = R"([{"send":"{\"method\":$n}\n","times":100000},)"
                             R"({"send":"{\"id\":$id,\"result\":1}\n"}])";
    server.send(toolCall(1, u"get_vm"_s, withSteps(steps)));
    for (int n = 0; n < Count; ++n) {
        if (const QByteArray line = server.line();
            line != eventLine("{\"event\":" + QByteArray::number(n) + "}"))
            QFAIL(line.constData());
    }
    QCOMPARE(resultText(parsed(server.line())), u"1"_s);
}

QTEST_GUILESS_MAIN(tst_server)
#include "tst_server.moc"
