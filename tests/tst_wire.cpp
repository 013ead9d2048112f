// The text that goes out, beside what QJsonDocument makes of the same values, and what comes in.

#include "json_input.h"
#include "json_reference.h"
#include "line_buffer.h"
#include "plain_string.h"
#include "server_limits.h"

#include <QCborValue>
#include <QTest>

using namespace Qt::StringLiterals;

class tst_wire : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void writesWhatQtWrites_data();
    void writesWhatQtWrites();
    void writesKeysThatItKnows();
    void borrowsWhatIsPlain();
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
    row("rows", R"([{"a":1,"b":{"a":2}},{"a":3,"c":{"a":4}},{"é":5,"c":{"b":6}},{"é":7,"é\n":8}])");
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
    for (const qsizetype expected : { qsizetype(0), Much }) {
        QCOMPARE(writtenTexts(document, expected).compact, referenceTexts(document).compact);
        QCOMPARE(writtenTexts(document, expected).reader, referenceTexts(document).reader);
        const QJsonArray values = document.array();
        for (const QJsonValue &value : values) {
            JsonText single(expected);
            single.value(value);
            QCOMPARE(single.bytes().toByteArray(), compactJson(value));
        }
    }
}

void tst_wire::writesKeysThatItKnows()
{
    QJsonObject object { { u"deep"_s, QJsonObject { { u"a"_s, 1 }, { u"b"_s, 2 } } } };
    for (int i = 0; i < 100; ++i)
        object.insert(u"%1\n"_s.arg(i), i);
    const JsonTexts reference = referenceTexts(QJsonDocument(object));
    JsonText text(Much);
    text.value(object);
    text.readerText(object);
    text.readerText(object);
    text.value(object);
    QCOMPARE(text.bytes().toByteArray(), QByteArrayList({ reference.compact, reference.reader,
                                                          reference.reader, reference.compact })
                                                 .join(','));
}

void tst_wire::borrowsWhatIsPlain()
{
    for (int c = 0; c < 0x100; ++c) {
        for (const int size : { 1, 15, 16, 40 }) {
            QByteArray text(size, 'x');
            text[c % size] = char(c);
            const bool standsForItself
                    = compactJson(QString::fromLatin1(text)) == '"' + text + '"' && c != '?';
            QCOMPARE(isPlain(text), standsForItself);
        }
    }
    for (const qsizetype size : { 1, 23, 24, 255, 256, 65'535, 65'536 }) {
        const QByteArray picture(size, 'p');
        JsonText text;
        text.beginArray();
        text.boolean(true);
        QByteArray written;
        QVERIFY(visitBytes(QCborValue(QLatin1StringView(picture)), [&](QByteArrayView bytes) {
            text.borrowedString(bytes);
            text.integer(7);
            text.endArray();
            for (const QByteArrayView piece : text.pieces())
                written += piece;
            return true;
        }));
        QCOMPARE(written, "[true,\"" + picture + "\",7]");
        QVERIFY(!text.isTooLong());
    }
    JsonText tooLong;
    tooLong.borrowedString({ "", Limits::MaxMessageBytes - 1 });
    QVERIFY(tooLong.isTooLong());
}

void tst_wire::keepsByteOrderMarks()
{
    const QByteArray line = "{\"a\uff0c\":0,\"\ufeff\":[\"\ufeff\",\"\ufeff\ufeffé\","
                            "\"a\ufeff\\\"\ufeff\"],\"\uff0c\":1}";
    JsonText text;
    text.value(parseObject(line).value_or(QJsonObject()));
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
            memcpy(buffer.space(step), piece.data(), size_t(piece.size()));
            buffer.added(piece.size());
            while (const auto line = buffer.takeLine()) {
                taken += line->toByteArray();
                buffer.releaseTaken();
            }
        }
        QCOMPARE(taken, sent);
        QCOMPARE(buffer.rest(), QByteArrayView("rest"));
    }
}

QTEST_GUILESS_MAIN(tst_wire)
#include "tst_wire.moc"
