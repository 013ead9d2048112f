// The text that goes out, beside what QJsonDocument makes of the same values, and what comes in.

#include "json_input.h"
#include "json_reference.h"
#include "line_buffer.h"
#include "server_limits.h"

#include <QTest>

using namespace Qt::StringLiterals;

class tst_wire : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void writesWhatQtWrites_data();
    void writesWhatQtWrites();
    void writesKeysThatItKnows();
    void takesLongStringsApart_data();
    void takesLongStringsApart();
    void countsWhatStandsApart();
    void keepsByteOrderMarks();
    void tellsWhatALineCosts_data();
    void tellsWhatALineCosts();
    void takesLinesHoweverTheyCome();
};

void tst_wire::writesWhatQtWrites_data()
{
    QTest::addColumn<QByteArray>("json");
    const auto row = [](const char *name, const QByteArray &json) { QTest::newRow(name) << json; };
    row("every ASCII character", [] {
        QJsonArray all;
        for (char16_t c = 0; c < 0x90; ++c) { // at each place of a block, and outside of one
            all += QString(c % 9, u'x') + QChar(c) + QString(9, u'y');
            all += QString(QChar(c));
        }
        return QJsonDocument(all).toJson();
    }());
    row("surrogates", R"(["\ud800","x\udc00","\ud83d\ude00","\ude00\ud83d","1234567\ud83d\ude00",
        "12345678\ud83d","\ud83d\ud83d\ude00","\ud8000123456789abcdef"])");
    row("beyond ASCII",
        R"(["é","ж","語","😀","\u2028\u2029","\u07ff\u0800\ufffd\uffff\ud7ff\ue000","1234567語8"])");
    row("integers", R"([0,-0,9007199254740991,9007199254740992,9007199254740993,-9007199254740993,
        9223372036854775807,9223372036854775808,-9223372036854775808,-9223372036854775809])");
    row("numbers", R"([-0.0,0.1,1.0,100000.0,1e5,1e18,1e21,1e22,5e-324,1.7976931348623157e308,
        0.000001,1e-7,123456789.125])");
    row("empty ones", R"({"":{},"a":[],"b":"","c":[{},[[]]]})");
    row("keys", R"({"\"":1,"\n":2,"é":3,"\ud800":4,"b":{"a\\":null},"zz":true,"z":false})");
    row("rows",
        R"([{"a":1,"b":{"a":2}},{"a":3,"c":{"a":4}},{"é":5,"c":{"b":6}},{"é":7,"éa":8},{"":9}])");
    row("halves of pairs", R"([{"\ud800a":9},{"a":10},{"a\udc00":11},{"a":12}])");
    row("1,000 levels", QByteArray(1000, '[') + '1' + QByteArray(1000, ']'));
    row("escaped throughout", "[\"" + QByteArray("\\u0001").repeated(5000) + "\"]");
    row("long strings", "[\"" + QByteArray("0123456789\\n\U0001f600").repeated(4000) + "\",\""
                                + "\\\\" + QByteArray(70'000, 'A') + "\",\""
                                + QByteArray(70'000, 'A') + "\",\"" + QByteArray(70'000, 'A')
                                + "\\\\\"]");
}

void tst_wire::writesWhatQtWrites()
{
    QFETCH(QByteArray, json);
    const QJsonDocument document = QJsonDocument::fromJson(json);
    QVERIFY(!document.isNull());
    const QJsonValue whole = document.isArray() ? QJsonValue(document.array()) : document.object();
    for (const bool keepsKeys : { false, !json.contains("\\u") }) {
        QCOMPARE(writtenTexts(whole, keepsKeys).compact, referenceTexts(document).compact);
        QCOMPARE(writtenTexts(whole, keepsKeys).reader, referenceTexts(document).reader);
        const QJsonArray values = document.array();
        for (const QJsonValue &value : values)
            QCOMPARE(writtenTexts(value, keepsKeys).compact, compactJson(value));
    }
}

void tst_wire::writesKeysThatItKnows()
{
    QJsonObject object { { u"deep"_s, QJsonObject { { u"a"_s, 1 }, { u"b"_s, 2 } } } };
    for (int i = 0; i < 100; ++i)
        object.insert(u"%1\n"_s.arg(i), i);
    const JsonTexts reference = referenceTexts(QJsonDocument(object));
    JsonWriter text;
    text.keepKeys(true);
    text.value(object);
    text.readerText(object);
    text.readerText(object);
    text.value(object);
    QCOMPARE(text.bytes().toByteArray(), QByteArrayList({ reference.compact, reference.reader,
                                                          reference.reader, reference.compact })
                                                 .join());
}

void tst_wire::takesLongStringsApart_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("after");
    QTest::addColumn<bool>("apart");
    const QByteArray text = QByteArray("iVBORw0KGgo+/?=").repeated(5'000);
    const QByteArray start = R"({"id":1,"result":{"format":"png","imageBase64":")";
    const QByteArray end = R"(","width":7}})";
    const auto row = [](const char *name, const QByteArray &before, const QByteArray &string,
                        const QByteArray &after,
                        bool apart) { QTest::newRow(name) << before << string << after << apart; };
    row("a picture", start, text, end, true);
    row("with blanks", start, text, "\" , \"width\" : 7 } }", true);
    row("beside an escape sequence", start, text, "\",\"x\":\"\\n\"}}", false);
    row("of an array", R"({"id":1,"x":[0,")", text, "\",1]}", true);
    row("replaced by a later one", start, text, R"(","imageBase64":"x"}})", true);
    row("a short one", start, text.first(100), end, false);
    const QByteArray much = QByteArray("7,").repeated(40'000);
    row("in front of much else", start, text, "\",\"x\":[" + much + "7]}}", false);
    row("behind much else", "{\"x\":[" + much + "7],\"y\":\"", text, "\"}", false);
    for (const char *character : { "\\n", "\\u0041", "é", "\x7f", "\\\"", "\t" }) {
        const bool isPlain = *character == '\x7f';
        for (const int place : { 0, 20'000, 75'000 - 1, 75'000 })
            row(qPrintable(u"%1 at %2"_s.arg(QString::fromUtf8(character)).arg(place)), start,
                QByteArray(text).insert(place, character), end, isPlain);
    }
    row("a key", R"({"id":1,"result":{")", text, "\" :1}}", false);
    row("numbers between strings", R"({"a":")", "\",\"b\":[" + much, R"(7],"c":"d"})", false);
    row("with one that looks like what stands in for it", start, text, R"(","x":"<string>"}})",
        false);
    row("with one that is spelt otherwise", start, text, R"(","x":"\u003cstring>"}})", false);
    row("without an end", start, text, "", false);
    row("without a beginning", "", text, "", false);
    row("of an invalid line", start, text, "\",}}", false);
}

void tst_wire::takesLongStringsApart()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, after);
    QFETCH(bool, apart);
    const QByteArray line = before + text + after;
    const std::optional<Message> message = parseAroundLongString(line);
    QCOMPARE(message.has_value(), apart);
    QVERIFY(!message || (message->longString == text && saysTheSame(*message, line)));
}

void tst_wire::countsWhatStandsApart()
{
    JsonWriter text;
    text.setLongString({ "", Limits::MaxMessageBytes - 1 });
    text.value(Placeholder);
    QVERIFY(text.isTooLong());
}

void tst_wire::keepsByteOrderMarks()
{
    const QByteArray line = "{\"a\uff0c\":0,\"\ufeff\":[\"\ufeff\",\"\ufeff\ufeffé\","
                            "\"a\ufeff\\\"\ufeff\"],\"\uff0c\":1}";
    JsonWriter text;
    text.value(parseMessage(line).value_or(Message()).object);
    // Keys go by their UTF-16 units.
    QCOMPARE(text.bytes().toByteArray(), line);
}

void tst_wire::tellsWhatALineCosts_data()
{
    QTest::addColumn<QByteArray>("unit");
    QTest::addColumn<int>("megabytes");
    QTest::addColumn<bool>("tooCostly");
    QTest::newRow("a picture") << QByteArray("QUJDRA") << 200 << false;
    QTest::newRow("a mark before it") << QByteArray("\ufeffQUJDRA") << 240 << true; // is copied
    QTest::newRow("a log") << QByteArray("[1] {\\\"a\\\":1}, at 10:00:00.\\n") << 200 << false;
    QTest::newRow("rows") << QByteArray(R"(",{"id":"/vms/a.vm","name":"a","cpu":4},")") << 50
                          << false;
    QTest::newRow("objects in a string") << QByteArray(R"(\",[1],\")") << 60 << false;
    QTest::newRow("objects") << QByteArray(R"(",{"a":1},")") << 60 << true;
    QTest::newRow("keys") << QByteArray(R"(","a":")") << 85 << true;
    QTest::newRow("arrays") << QByteArray(R"(",[[[1]]],")") << 30 << true;
    QTest::newRow("empty ones") << QByteArray(R"(",[],{},[],[],")") << 60 << false;
    QTest::newRow("numbers") << QByteArray(R"(",1,1,1,1,1,1,1,")") << 100 << true;
}

void tst_wire::tellsWhatALineCosts()
{
    QFETCH(QByteArray, unit);
    QFETCH(int, megabytes);
    QFETCH(bool, tooCostly);
    const QByteArray line = R"({"id":1,"result":[")"
                            + unit.repeated(megabytes * 1'000'000 / unit.size()) + "\"]}";
    QCOMPARE(isTooCostly(line), tooCostly);
}

void tst_wire::takesLinesHoweverTheyCome()
{
    QByteArrayList sent { "", "a", QByteArray(300'000, 'b'), "", QByteArray(70'000, 'c'), "d" };
    const QByteArray stream = sent.join('\n') + "\nrest";
    for (const qsizetype step : { 1, 7, 65'536, 1'000'000 }) {
        LineBuffer buffer;
        QByteArrayList taken;
        for (qsizetype at = 0; at < stream.size(); at += step) {
            const QByteArrayView piece
                    = QByteArrayView(stream).sliced(at, std::min(step, stream.size() - at));
            memcpy(buffer.space(step).data(), piece.data(), size_t(piece.size()));
            buffer.added(piece.size());
            while (const auto line = buffer.takeLine()) {
                taken += line->toByteArray();
                buffer.releaseTaken();
            }
        }
        QCOMPARE(taken, sent);
        QCOMPARE(buffer.rest(), QByteArrayView("rest"));
    }
    // Many at once: the time grows with their number, not with its square.
    LineBuffer many;
    const QByteArray small = QByteArray("{}\n").repeated(3'000'000);
    memcpy(many.space(small.size()).data(), small.data(), size_t(small.size()));
    many.added(small.size());
    qsizetype count = 0;
    for (; many.takeLine(); ++count)
        many.releaseTaken();
    QCOMPARE(count, 3'000'000);
}

QTEST_GUILESS_MAIN(tst_wire)
#include "tst_wire.moc"
