// Holds the catalogue to what a reader of its text cannot see at a glance; catalogue.txt has what
// it must contain.

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype MaxServedBytes = 33'900;
constexpr qsizetype MaxToolText = 1'000;
constexpr qsizetype MaxFirstSentence = 120;
constexpr qsizetype MaxPropertyText = 300;
constexpr int FixedTools = 3; // the first ones, whose texts are not ours to shorten

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// "name type", "name type[items]" or "name type (enum, enum)".
QString signature(const QString &name, const QJsonObject &schema)
{
    QString text = name + u' ' + schema["type"_L1].toString();
    if (schema.contains("items"_L1))
        text += u'[' + schema["items"_L1]["type"_L1].toString() + u']';
    const QString values = schema["enum"_L1].toVariant().toStringList().join(u", "_s);
    return values.isEmpty() ? text : text + u" (%1)"_s.arg(values);
}

} // namespace

class tst_catalogue : public QObject
{
    Q_OBJECT

    QJsonArray tools;
    QStringList table;

private Q_SLOTS:
    void initTestCase()
    {
        tools = QJsonDocument::fromJson(contents(QStringLiteral(CONTRACT_PATH)))["tools"_L1]
                        .toArray();
        table = QString::fromUtf8(contents(QFINDTESTDATA("catalogue.txt"))).split(u'\n');
        table = table.filter(QRegularExpression(u"^[^#]"_s));
        QCOMPARE(tools.size(), 46);
        QVERIFY(QJsonDocument(tools).toJson(QJsonDocument::Compact).size() <= MaxServedBytes);
    }

    void describesEachTool_data()
    {
        QTest::addColumn<QString>("row");
        QTest::addColumn<QJsonObject>("schema");
        for (qsizetype i = 0; i < tools.size(); ++i) {
            const QJsonObject tool = tools[i].toObject();
            const QString text = tool["description"_L1].toString();
            QCOMPARE(tool.keys(), (QStringList { u"description"_s, u"inputSchema"_s, u"name"_s }));
            QCOMPARE(tool["name"_L1].toString(),
                     table[i].section(u" | "_s, 0, 0).section(u' ', 0, 0));
            QVERIFY2(text.endsWith(u'.') && text.size() <= MaxToolText, qPrintable(text));
            QVERIFY2(i < FixedTools || text.indexOf(u'.') < MaxFirstSentence, qPrintable(text));
            const QJsonObject schema = tool["inputSchema"_L1].toObject();
            static const QRegularExpression warning(u"Destructive: |cannot be undone"_s);
            QVERIFY2(!schema["properties"_L1]["confirm"_L1].isObject() || text.contains(warning),
                     qPrintable(text));
            QTest::newRow(qPrintable(tool["name"_L1].toString())) << table[i] << schema;
            const QJsonValue actions = schema["properties"_L1]["actions"_L1]["items"_L1];
            if (actions.isObject())
                QTest::newRow("actions") << table[tools.size()] << actions.toObject();
        }
    }

    void describesEachTool()
    {
        QFETCH(QString, row);
        QFETCH(QJsonObject, schema);
        QCOMPARE(schema.keys(), (QStringList { u"properties"_s, u"required"_s, u"type"_s }));
        QCOMPARE(schema["type"_L1].toString(), u"object"_s);
        const QJsonObject properties = schema["properties"_L1].toObject();
        const QStringList requiredNames = schema["required"_L1].toVariant().toStringList();
        QStringList required;
        for (const QString &name : requiredNames)
            required += signature(name, properties[name].toObject());

        static const QSet<QString> keywords { u"type"_s,  u"description"_s, u"enum"_s,
                                              u"items"_s, u"properties"_s,  u"required"_s };
        QStringList optional;
        for (auto it = properties.begin(); it != properties.end(); ++it) {
            const QJsonObject property = it.value().toObject();
            const QString text = property["description"_L1].toString();
            const QStringList keys = property.keys();
            QVERIFY2(keywords.contains(QSet<QString>(keys.begin(), keys.end())),
                     qPrintable(it.key()));
            QVERIFY2(property.contains("items"_L1) == (property["type"_L1] == "array"_L1),
                     qPrintable(it.key()));
            QVERIFY2(text.endsWith(u'.') && text.size() <= MaxPropertyText, qPrintable(text));
            if (requiredNames.contains(it.key()))
                continue;
            optional += signature(it.key(), property);
            QVERIFY2(text.contains("Default "_L1) || text.contains("Omit "_L1), qPrintable(text));
        }
        QStringList expected = row.section(u'|', 2).trimmed().split(u"; "_s, Qt::SkipEmptyParts);
        optional.sort();
        expected.sort();
        QCOMPARE(required.join(u"; "_s), row.section(u'|', 1, 1).trimmed());
        QCOMPARE(optional, expected);
    }

    void mentionsOnlyToolsThatExist()
    {
        QSet<QString> names;
        for (const QJsonValue tool : std::as_const(tools))
            names += tool["name"_L1].toString();
        const QString text = QString::fromUtf8(QJsonDocument(tools).toJson());
        static const QRegularExpression word(u"[a-z]+(_[a-z]+)+"_s);
        for (auto match = word.globalMatch(text); match.hasNext();) {
            const QString mentioned = match.next().captured();
            QVERIFY2(names.contains(mentioned), qPrintable(mentioned));
        }
    }

    void keepsTheFixedTexts()
    {
        QString all = QString::fromUtf8(QJsonDocument(tools).toJson());
        for (const QString &line : table.filter(u" = "_s)) {
            const QString text = u'"' + line.section(u" = "_s, 1) + u'"';
            QVERIFY2(all.count(text) == line.section(u" = "_s, 0, 0).toInt(), qPrintable(text));
            all.remove(text);
        }
        QVERIFY(all.toUtf8().size() == all.size()); // ASCII
    }

    void isStoredAsZstd()
    {
        const QByteArray program = contents(QStringLiteral(SERVER_PATH));
        QVERIFY(program.contains(QByteArrayLiteral("\x28\xb5\x2f\xfd")));
        QVERIFY(!program.contains("Required before VM tools can be used"));
    }
};

QTEST_GUILESS_MAIN(tst_catalogue)
#include "tst_catalogue.moc"
