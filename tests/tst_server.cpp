// The server as its client sees it: the protocol, and what becomes of relayed calls.

#include "harness.h"

namespace {

QByteArray cancelled(const QByteArray &requestId)
{
    return R"({"method":"notifications/cancelled","params":{"requestId":)" + requestId + "}}";
}

// A step that sends events without end.
QByteArray flood()
{
    return compact({ { u"send"_s, u"{\"method\":\"e\"}\n"_s }, { u"times"_s, 1'000'000'000 } });
}

// Pings, each on a line behind another one.
QByteArray pingLines(int count)
{
    return QByteArray("\n"
                      R"({"id":"","method":"ping"})")
            .repeated(count);
}
const QByteArray PingAnswer = R"({"id":"","jsonrpc":"2.0","result":{}})";

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
    void answersLines_data()
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

    void answersLines()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, answer);
        Installation home;
        home.environment.insert(u"LC_ALL"_s, u"C"_s); // of which Qt 6.8 warns
        Server server(home);
        server.process.write(sent);
        QCOMPARE(server.finish(), 0);
        QCOMPARE(server.process.readAllStandardOutput(), answer);
        QCOMPARE(server.process.readAllStandardError(), "");
        QCOMPARE(home.applications().size(), 0);
    }

    void listsTheCatalogue()
    {
        QFile contract(QStringLiteral(CONTRACT_PATH));
        QVERIFY(contract.open(QIODevice::ReadOnly));
        const QJsonObject tools { { u"tools"_s,
                                    QJsonDocument::fromJson(contract.readAll())["tools"_L1] } };
        const Installation home;
        Server server(home);
        server.send(R"({"id":1,"method":"tools/list","params":{"cursor":"x"}})");
        QCOMPARE(server.line(), R"({"id":1,"jsonrpc":"2.0","result":)" + compact(tools) + "}");
    }

    void relaysACall_data() { addTranscripts(QFINDTESTDATA("relay.txt")); }

    void relaysACall()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QByteArray, relayed);
        QFETCH(QByteArray, answer);
        const Installation home;
        const Application app(home);
        Server server(home);
        server.send(sent.isEmpty() ? toolCall(7, u"start_vm"_s, withSteps(sendStep(relayed)))
                                   : sent.trimmed());
        QCOMPARE(server.finish(), 0);
        QCOMPARE(server.process.readAllStandardOutput(), answer);
    }

    void introducesItself_data()
    {
        QTest::addColumn<QStringList>("variables");
        QTest::addColumn<QByteArray>("names"); // that the client gave in turn
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const QStringList &variables, const char *names,
                            const QString &expected) {
            QTest::newRow(name) << variables << QByteArray(names) << expected;
        };
        const QString other = u"MCP_CLIENT_NAME=v"_s;
        row("nothing known", {}, "", u"MCP client"_s);
        row("by initialize", {}, "\"abc\"", u"abc"_s);
        row("by the last initialize", {}, "\"abc\",7", u"MCP client"_s);
        row("by the variable", { other }, "\"abc\"", u"v"_s);
        row("by the empty variable", { u"MCP_CLIENT_NAME="_s }, "\"abc\"", u""_s);
        row("by the own variable", { u"ORRERY_MCP_CLIENT=o"_s, other }, "\"abc\"", u"o"_s);
        row("by the empty own variable", { u"ORRERY_MCP_CLIENT="_s, other }, "\"abc\"", u""_s);
    }

    void introducesItself()
    {
        QFETCH(QStringList, variables);
        QFETCH(QByteArray, names);
        QFETCH(QString, expected);
        Installation home;
        const Application app(home);
        for (const QString &variable : variables)
            home.environment.insert(variable.section(u'=', 0, 0), variable.section(u'=', 1));
        Server server(home);
        for (const QByteArray &name : names.split(','))
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
    void failsAndConnectsAgain_data()
    {
        QTest::addColumn<QByteArray>("steps");
        QTest::addColumn<QString>("text");
        const QString closed = u"Orrery call failed: Orrery closed the connection"_s;
        const QString tooLong = u"Orrery call failed: Orrery sent a line of more than 256 MiB"_s;
        const QByteArray close = R"(,{"close":1})";
        const QByteArray exit = R"(,{"exit":1})";
        const QByteArray half = "{\"id\":$id,\"result\":{}";
        QTest::newRow("closed") << sendStep("", close) << closed;
        QTest::newRow("closed within a line") << sendStep(half, close) << closed;
        QTest::newRow("closed within a large line")
                << QByteArray(R"([{"fill":250000000},{"close":1}])") << closed;
        QTest::newRow("ended within a line") << sendStep(half, exit) << closed;
        QTest::newRow("ended, and another has the connection")
                << sendStep(half, R"(,{"leak":70},{"exit":1})") << closed;
        QTest::newRow("answered and closed") << sendStep(Answer, close) << u"1"_s;
        QTest::newRow("answered, more, and ended") << sendStep(Answer + half, exit) << u"1"_s;
        QTest::newRow("an endless line") << QByteArray(R"([{"fill":270000000}])") << tooLong;
        QTest::newRow("a line too long, with its end")
                << QByteArray(R"([{"fill":268435457},{"send":"\n"}])") << tooLong;
    }

    void failsAndConnectsAgain()
    {
        QFETCH(QByteArray, steps);
        QFETCH(QString, text);
        const Installation home;
        Application app(home);
        const qsizetype idle = app.openFiles();
        Server server(home);
        QCOMPARE(resultText(server.callSteps(steps)), text);
        if (!Sanitized) // the sanitizers keep freed memory, so that they see it used
            QTRY_VERIFY(server.residentBytes() < 80 << 20);
        if (steps.contains("exit"))
            QVERIFY(app.process.waitForFinished());
        QTRY_VERIFY(app.openFiles() <= idle); // it has closed its end
        // Launched anew where it ended; the new connection begins with a hello and an empty buffer.
        QCOMPARE(resultText(server.callSteps(sendStep("{\"id\":$id,\"result\":\"fresh\"}\n"))),
                 u"fresh"_s);
        QStringList requests;
        for (const QJsonObject &request : home.received())
            requests += u"%1 %2"_s.arg(request["id"_L1].toInt())
                                .arg(request["method"_L1].toString());
        QCOMPARE(requests,
                 (QStringList { u"1 hello"_s, u"2 get_vm"_s, u"3 hello"_s, u"4 get_vm"_s }));
    }

    void acceptsLargeLines()
    {
        const Installation home;
        const Application app(home);
        Server server(home);
        server.send("{\"id\":0,\"method\":\"ping\",\"x\":\"" + QByteArray(64 << 20, 'x') + "\"}");
        QCOMPARE(parsed(server.line())["id"_L1], QJsonValue(0));
        server.send(
                toolCall(1, u"get_vm"_s,
                         withSteps(R"([{"fill":268435456},)" + sendStep("\n" + Answer).sliced(1))));
        QCOMPARE(server.line(), eventLine("{}"));
        QCOMPARE(resultText(parsed(server.line())), u"1"_s);
        QCOMPARE(resultText(server.callSteps("[{\"send\":\"{\\\"id\\\":$id,\\\"result\\\":\\\"\"},"
                                             "{\"fill\":60000000},{\"send\":\"\\\"}\\n\"}]"))
                         .size(),
                 60'000'000);
        for (const int size : { 32, 288, 65'568, 3'000'000 }) {
            QByteArray image(size, 'x');
            for (int at = 0; at < size; at += 7)
                image[at] = char('A' + at % 26);
            const QJsonObject answer = server.callSteps(
                    sendStep("{\"id\":$id,\"result\":{\"imageBase64\":\"" + image + "\"}}\n"));
            QCOMPARE(answer["result"_L1]["content"_L1][0]["data"_L1],
                     QJsonValue(QString::fromLatin1(image)));
        }
    }

    // Wherever it is. A ~ is the string.
    void keepsLongStrings_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("answer");
        const auto row = [](const char *name, const QByteArray &line, const QByteArray &answer) {
            QTest::newRow(name) << QString::fromLatin1(line) << QString::fromLatin1(answer);
        };
        const auto text = [](const QByteArray &shown, bool isError) {
            return "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":{\"content\":[{\"text\":\"" + shown
                   + "\",\"type\":\"text\"}],\"isError\":" + (isError ? "true}}" : "false}}");
        };
        const auto said = [](const QByteArray &lines) {
            return toolCall(1, u"get_vm"_s, withSteps(sendStep(lines)));
        };
        row("an id", R"({"id":"~","method":"ping"})", R"({"id":"~","jsonrpc":"2.0","result":{}})");
        row("of an id", R"({"id":["~"],"method":"tools/call","params":{"name":"no"}})",
            R"({"id":["~"],)" + text("unknown tool: no", true).sliced(8));
        row("a method", R"({"id":1,"method":"~"})",
            R"({"error":{"code":-32601,"message":"Method not found: ~"},"id":1,"jsonrpc":"2.0"})");
        row("a tool", R"({"id":1,"method":"tools/call","params":{"name":"~"}})",
            text("unknown tool: ~", true));
        row("a result", said("{\"id\":$id,\"result\":\"~\"}\n"), text("~", false));
        row("of a result", said("{\"id\":$id,\"result\":[\"~\"]}\n"),
            text(R"([\n    \"~\"\n])", false));
        row("an error", said("{\"id\":$id,\"error\":{\"code\":\"a\",\"message\":\"~\"}}\n"),
            text("Orrery error [a]: ~", true));
        row("events", said("{\"method\":\"~\"}\n{\"params\":[\"~\"]}\n{\"method\":3}\n" + Answer),
            eventLine(R"({"event":"~"})") + '\n' + eventLine(R"({"detail":["~"]})") + '\n'
                    + eventLine(R"({"event":3})") + '\n' + text("1", false));
    }

    void keepsLongStrings()
    {
        QFETCH(QString, line);
        QFETCH(QString, answer);
        const QString text(20'000, u'x');
        const Installation home;
        const Application app(home);
        Server server(home);
        server.send(line.replace(u'~', text).toLatin1());
        for (QString part : answer.split(u'\n'))
            QCOMPARE(QString::fromLatin1(server.line()), part.replace(u'~', text));
        const QByteArray call = toolCall(1, u"get_vm"_s, { { u"a"_s, text } });
        server.send(call);
        QVERIFY(!isError(parsed(server.line())));
        QCOMPARE(home.received().last()["params"_L1], parsed(call)["params"_L1]["arguments"_L1]);
    }

    void anApplicationThatDoesNotReadFailsTheWrite()
    {
        const HastyInstallation home;
        const Application app(home);
        Server server(home);
        // The first call is answered, then nothing is read while the second, large one comes.
        QCOMPARE(resultText(server.callSteps(sendStep(Answer, R"(,{"wait":4000})"))), u"1"_s);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(resultText(server.call(u"get_vm"_s, { { u"large"_s, QString(600'000, u'x') } })),
                 u"Orrery call failed: write to Orrery failed"_s);
        QVERIFY(timer.elapsed() >= 5 * HastyInstallation::SecondMs);
        QVERIFY(timer.elapsed() < 3'500); // and not only when something is read again
        QTRY_VERIFY(!isError(server.call(u"get_vm"_s))); // once it reads again

        // A cancellation counts also while the request is written.
        const QByteArray begun = sendStep("{\"method\":\"begun\"}\n", R"(,{"wait":4000})");
        QVERIFY(!isError(server.callSteps(sendStep(Answer, ',' + begun.sliced(1).chopped(1)))));
        server.send(toolCall(7, u"get_vm"_s, { { u"large"_s, QString(600'000, u'x') } }));
        QCOMPARE(server.line(), eventLine(R"({"event":"begun"})"));
        server.send(cancelled("7"));
        QCOMPARE(resultText(parsed(server.line())),
                 u"Orrery call failed: cancelled by the client"_s);
    }

    // An application that writes before it reads, and a client that takes nothing for a while.
    void takesInWhatIsSaidWhileItWrites_data()
    {
        QTest::addColumn<int>("pings");
        QTest::newRow("a client that takes no events") << 0;
        QTest::newRow("nor answers to its pings, for which they wait") << 4'000;
    }

    void takesInWhatIsSaidWhileItWrites()
    {
        QFETCH(int, pings);
        constexpr int Events = 1'000;
        const QByteArray detail(1'000, 'x');
        const HastyInstallation home;
        const Application app(home);
        Server server(home);
        const QString event
                = u"{\"method\":$n,\"params\":\"%1\"}\n"_s.arg(QLatin1StringView(detail));
        const QByteArray then
                = R"(,{"wait":300},)" + compact({ { u"send"_s, event }, { u"times"_s, Events } });
        QCOMPARE(resultText(server.callSteps(sendStep(Answer, then))), u"1"_s);
        server.send(toolCall(1, u"get_vm"_s, { { u"large"_s, QString(600'000, u'x') } })
                    + pingLines(pings));
        while (server.process.bytesToWrite() > 0)
            QVERIFY(server.process.waitForBytesWritten(PatienceMs));
        QTest::qSleep(7 * HastyInstallation::SecondMs); // longer than a write may take
        int events = 0;
        QByteArray line = server.line();
        for (; !line.startsWith(R"({"id":1,)"); line = server.line()) {
            QVERIFY(!line.isEmpty());
            if (line != PingAnswer) {
                QCOMPARE(line, eventLine("{\"detail\":\"" + detail
                                         + "\",\"event\":" + QByteArray::number(events++) + "}"));
            }
        }
        QCOMPARE(events, Events);
        QVERIFY(!isError(parsed(line)));
    }

    // As long as there is nothing to say to it, it need not listen.
    void aClientThatTakesNothingHoldsUpNoCall()
    {
        const Installation home;
        home.script(u"hello"_s, R"([{"wait":300},)" + sendStep(Answer).sliced(1));
        const Application app(home);
        Server server(home);
        server.send(toolCall(1, u"list_vms"_s) + pingLines(2'000)); // as much as one pipe holds
        QVERIFY(server.process.waitForBytesWritten(PatienceMs));
        const QDeadlineTimer deadline(PatienceMs);
        while (home.received().size() < 2 && !deadline.hasExpired())
            QTest::qSleep(10); // in which the server's output is not read
        QCOMPARE(home.received().back()["method"_L1], QJsonValue(u"list_vms"_s));
    }

    // An application that says something without end, and a client that takes it.
    void endsWhatIsFlooded_data()
    {
        QTest::addColumn<bool>("reads");
        QTest::newRow("an application that reads nothing") << false;
        QTest::newRow("a call that the client cancels") << true;
    }

    void endsWhatIsFlooded()
    {
        QFETCH(bool, reads);
        const HastyInstallation home;
        const Application app(home);
        Server server(home);
        const QByteArray then = ',' + flood();
        if (reads) {
            server.send(toolCall(7, u"job_wait"_s, withSteps(sendStep("", then))));
        } else {
            QVERIFY(!isError(server.callSteps(sendStep(Answer, then))));
            server.send(toolCall(7, u"job_wait"_s, { { u"x"_s, QString(600'000, u'x') } }));
        }
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(server.line(), eventLine(R"({"event":"e"})"));
        if (reads)
            server.send(cancelled("7"));
        QByteArray line;
        while ((line = server.line()).contains("notifications/message")) { }
        QCOMPARE(resultText(parsed(line)), reads ? u"Orrery call failed: cancelled by the client"_s
                                                 : u"Orrery call failed: write to Orrery failed"_s);
        QVERIFY(timer.elapsed() < 20 * HastyInstallation::MinuteMs); // its limit is 31
    }

    // An application that answers without having read everything.
    void hearsAnAnswerWhileItWrites_data()
    {
        QTest::addColumn<QByteArray>("result");
        QTest::addColumn<QByteArray>("then");
        const QByteArray picture = "{\"imageBase64\":\"" + QByteArray(20'000, 'A') + "\"}";
        QTest::newRow("and hangs up") << QByteArray("\"early\"") << QByteArray(R"({"close":1})");
        QTest::newRow("and goes on") << QByteArray("\"early\"") << flood();
        QTest::newRow("with a picture, and goes on") << picture << QByteArray(flood());
    }

    void hearsAnAnswerWhileItWrites()
    {
        QFETCH(QByteArray, result);
        QFETCH(QByteArray, then);
        const Installation home;
        const Application app(home);
        Server server(home);
        const QByteArray early = "{\"method\":\"e\"}\n{\"id\":3,\"result\":" + result + "}\n";
        QCOMPARE(resultText(server.callSteps(
                         sendStep(Answer, R"(,{"wait":500},)" + sendStep(early).sliced(1).chopped(1)
                                                  + ',' + then))),
                 u"1"_s);
        QElapsedTimer timer;
        timer.start();
        server.send(toolCall(1, u"get_vm"_s, { { u"large"_s, QString(3'000'000, u'x') } }));
        QCOMPARE(server.line(), eventLine("{\"event\":\"e\"}"));
        const QJsonValue block = parsed(server.line())["result"_L1]["content"_L1][0];
        QCOMPARE(u'"' + block["text"_L1].toString() + block["data"_L1].toString() + u'"',
                 QString::fromLatin1(result.mid(result.indexOf(':') + 1)).remove(u'}'));
        QVERIFY(timer.elapsed() < 4'000); // before a write would have failed
        QVERIFY(Sanitized || server.residentBytes() < 80 << 20);
        QCOMPARE(resultText(server.callSteps(sendStep("{\"id\":$id,\"result\":\"fresh\"}\n"))),
                 u"fresh"_s); // on a new connection, where what was said before does not count
    }

    // Nothing of it goes out, and the connection stays.
    void refusesARequestThatIsTooLong()
    {
        const Installation home;
        const Application app(home);
        Server server(home);
        QVERIFY(!isError(server.call(u"get_vm"_s)));
        server.send("{\"id\":1,\"method\":\"tools/call\",\"params\":{\"name\":\"get_vm\","
                    "\"arguments\":{\"x\":\""
                    + QByteArray(95'000'000, '\1') + "\"}}}");
        QCOMPARE(resultText(parsed(server.line())),
                 u"Orrery call failed: the request is longer than 512 MiB"_s);
        QVERIFY(!isError(server.call(u"get_vm"_s)));
        QCOMPARE(home.received().size(), 3); // one of them the only greeting
    }

    // A ping waits for one write and for what the pipe holds, and for no more.
    void answersPingsBesideEvents()
    {
        constexpr qsizetype Write = 65'536;
        const Installation home;
        const Application app(home);
        Server server(home);
        const QByteArray steps = sendStep("", ',' + flood());
        server.send(toolCall(1, u"get_vm"_s, withSteps(steps)));
        QVERIFY(!server.line().isEmpty());
        server.send(R"({"id":2,"method":"ping"})");
        server.process.waitForBytesWritten();
        QTest::qSleep(500); // until nothing moves any more
        qsizetype allowed = server.process.bytesAvailable() + 3 * Write;
        for (QByteArray line; !line.startsWith("{\"id\":2"); allowed -= line.size() + 1)
            QVERIFY(!(line = server.line()).isEmpty());
        QVERIFY2(allowed > 0, qPrintable(QString::number(allowed)));
    }

    void servesWithoutACatalogue()
    {
        const Installation home(QStringLiteral(ODD_SERVER_PATH));
        Server server(home);
        server.send(R"({"id":1,"method":"initialize"})");
        server.send(R"({"id":2,"method":"tools/list"})");
        server.send(toolCall(3, u"app_status"_s));
        QCOMPARE(server.line(), R"({"id":1,"jsonrpc":"2.0","result":{"capabilities":{"logging":{},)"
                                R"("tools":{}},"protocolVersion":"2024-11-05"}})");
        QCOMPARE(server.line(), R"({"id":2,"jsonrpc":"2.0","result":{}})");
        QCOMPARE(resultText(parsed(server.line())), u"unknown tool: app_status"_s);
    }

    void eventsAfterTheAnswerComeWithTheNextCall()
    {
        const Installation home;
        const Application app(home);
        Server server(home);
        const QByteArray cut = sendStep(Answer + "{\"method\":\"late\"}\n{\"meth");
        QCOMPARE(resultText(server.callSteps(cut)), u"1"_s);
        server.send(R"({"id":5,"method":"initialize"})"); // runs no events into the void
        QVERIFY(!server.line().isEmpty());
        const QByteArray rest = sendStep("od\":\"rest\"}\n{\"id\":$id,\"result\":2}\n");
        server.send(toolCall(6, u"get_vm"_s, withSteps(rest)));
        QCOMPARE(server.line(), eventLine(R"({"event":"late"})"));
        QCOMPARE(server.line(), eventLine(R"({"event":"rest"})"));
        QCOMPARE(resultText(parsed(server.line())), u"2"_s);
    }

    // They go out also while a request is written that the application does not read.
    void eventsAfterTheAnswerDoNotWaitForTheApplication()
    {
        const HastyInstallation home;
        const Application app(home);
        Server server(home);
        QCOMPARE(resultText(server.callSteps(
                         sendStep(Answer + "{\"method\":\"late\"}\n", R"(,{"wait":100000})"))),
                 u"1"_s);
        server.send(toolCall(1, u"get_vm"_s, { { u"large"_s, QString(600'000, u'x') } }));
        QCOMPARE(server.line(), eventLine(R"({"event":"late"})"));
        QVERIFY(isError(parsed(server.line())));
    }

    void cancelsTheCallInFlightOnly_data()
    {
        QTest::addColumn<QJsonValue>("id");
        QTest::addColumn<QByteArray>("requestId");
        QTest::addColumn<bool>("ends");
        const auto row
                = [](const char *name, const QJsonValue &id, const char *requestId, bool ends) {
                      QTest::newRow(name) << id << QByteArray(requestId) << ends;
                  };
        row("named", 5, "5", true);
        row("named, with a fraction", 5, "5.0", true);
        row("beyond 32 bits", 5e9, "5000000000", true);
        row("another", 5, "6", false);
        row("as a string", 5, "\"5\"", false);
        row("as a string, id 0", 0, "\"0\"", false);
        row("string id", u"5"_s, "\"5\"", false);
        row("id -2", -2, "\"x\"", false);
        row("string id, as -1", u"5"_s, "-1", false);
        row("id -1", -1, "-1", false);
    }

    void cancelsTheCallInFlightOnly()
    {
        QFETCH(QJsonValue, id);
        QFETCH(QByteArray, requestId);
        QFETCH(bool, ends);
        const Installation home;
        const Application app(home);
        Server server(home);
        const QJsonArray steps { QJsonObject { { u"send"_s, u"{\"method\":\"begun\"}\n"_s } },
                                 QJsonObject { { u"wait"_s, ends ? 2'000 : 1'000 } },
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
        QVERIFY(!isError(server.call(u"get_vm"_s)));
        QCOMPARE(home.received().size(), ends ? 4 : 3); // a cancelled call ends its connection
    }
};

QTEST_GUILESS_MAIN(tst_server)
#include "tst_server.moc"
