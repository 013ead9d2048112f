// Holds the catalogue to what a reader of its text cannot see at a glance.

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype MaxServedBytes = 42'000;
constexpr qsizetype MaxToolText = 1'000;
constexpr qsizetype MaxFirstSentence = 120;
constexpr qsizetype MaxPropertyText = 300;
constexpr int FixedTools = 3; // the first ones, whose texts are not ours to shorten

// "name type", "name type[items]" or "name type (enum, enum)" of each property.
struct Row
{
    const char *name;
    const char *required; // in order
    const char *optional; // in any order
};

constexpr Row rows[] {
    { "launch_app", "", "" },
    { "quit_app", "", "mode string (graceful, force)" },
    { "app_status", "", "" },
    { "list_vms", "", "" },
    { "get_vm", "id string", "" },
    { "create_vm",
      "os string (macOS, linux, windows); cpu integer; ramGB integer; diskGB integer; "
      "network string (nat, bridge)",
      "image string; password string; name string; nestedVirt boolean; userData string; "
      "rosetta boolean; username string; linuxNetworkDriver string (builtin, service, native); "
      "linuxExperience string (server, desktop); unattended boolean; async boolean; "
      "bridgeInterface string; userDataPath string" },
    { "job_status", "jobId string", "" },
    { "job_wait", "jobId string", "timeoutSeconds integer" },
    { "list_jobs", "", "" },
    { "start_vm", "id string", "" },
    { "stop_vm", "id string", "mode string (graceful, force)" },
    { "delete_vm", "id string; confirm boolean", "" },
    { "set_hardware", "id string",
      "nestedVirt boolean; cpu integer; ramGB integer; rosetta boolean; "
      "network string (nat, bridge); bridgeInterface string; "
      "linuxNetworkDriver string (builtin, service, native)" },
    { "resize_disk", "id string; newGB integer; confirm boolean", "" },
    { "get_diagnostics", "id string", "" },
    { "wait_for_state", "id string", "target string (running, stopped); timeoutSeconds integer" },
    { "set_installer_media", "id string; path string", "" },
    { "finish_install", "id string", "" },
    { "tail_log", "id string", "grep string; sinceSeconds integer" },
    { "networking_status", "", "" },
    { "host_capabilities", "", "" },
    { "suspend_resume_vm", "id string", "" },
    { "networking_install", "", "" },
    { "networking_repair", "", "" },
    { "networking_uninstall", "", "" },
    { "add_shared_folder", "id string; hostPath string", "readOnly boolean; name string" },
    { "remove_shared_folder", "id string; folderId string", "" },
    { "set_shared_folder_readonly", "id string; folderId string; readOnly boolean", "" },
    { "apply_guest_tools", "id string", "" },
    { "set_console_window_size", "id string; width integer; height integer", "" },
    { "set_display_resolution", "id string; width integer; height integer", "" },
    { "set_attach_linux_guest_tools", "id string; enabled boolean", "" },
    { "set_linux_network_path", "id string; driver string (native, service)", "" },
    { "capture_screen", "id string",
      "region array[number]; format string (png, jpeg); scale number; "
      "output string (base64, file)" },
    { "read_console_text", "id string", "pattern string" },
    { "wait_for_text", "id string; pattern string", "timeoutSeconds integer" },
    { "send_input", "id string",
      "key string; actions array[object]; imageScale number; format string (png, jpeg); "
      "captureAfter boolean; x integer; value string; delayMs integer; "
      "type string (click, double, move, drag, scroll, text, key); toY integer; "
      "captureDelayMs integer; scale number; region array[number]; toX integer; dy integer; "
      "y integer; modifiers array[string]; button string (left, right)" },
    { "provision_ssh", "id string", "" },
    { "ssh_status", "id string", "" },
    { "revoke_ssh", "id string", "" },
    { "guest_network", "id string", "" },
    { "run_in_guest", "id string; command string",
      "connectTimeoutSeconds integer; interactive boolean; timeoutSeconds integer; "
      "commandTimeoutSeconds integer; host string; user string" },
    { "read_guest_clipboard", "id string",
      "copy boolean; maxChars integer; user string; selectAll boolean; host string" },
    { "reveal_vm", "id string", "" },
    { "list_restore_images", "", "" },
    { "list_images", "", "" },
};

constexpr Row actionRow {
    "send_input actions", "type string (click, double, move, drag, scroll, text, key)",
    "x integer; y integer; toX integer; toY integer; dy integer; value string; "
    "key string; modifiers array[string]; button string (left, right)"
};

QJsonArray catalogue()
{
    QFile file(QStringLiteral(CONTRACT_PATH));
    return file.open(QIODevice::ReadOnly)
                   ? QJsonDocument::fromJson(file.readAll())["tools"_L1].toArray()
                   : QJsonArray();
}

QString typeOf(const QJsonObject &schema)
{
    QString type = schema["type"_L1].toString();
    if (schema.contains("items"_L1))
        type += u'[' + schema["items"_L1]["type"_L1].toString() + u']';
    QStringList values;
    const QJsonArray accepted = schema["enum"_L1].toArray();
    for (const QJsonValue &value : accepted)
        values += value.toString();
    return values.isEmpty() ? type : type + u" (%1)"_s.arg(values.join(u", "_s));
}

void checkSchema(const QJsonObject &schema, const Row &row)
{
    const QJsonObject properties = schema["properties"_L1].toObject();
    QStringList required;
    const QJsonArray requiredNames = schema["required"_L1].toArray();
    for (const QJsonValue &name : requiredNames)
        required += name.toString() + u' ' + typeOf(properties[name.toString()].toObject());
    QCOMPARE(required.join(u"; "_s), QString::fromLatin1(row.required));

    static const QSet<QString> keywords { u"type"_s,  u"description"_s, u"enum"_s,
                                          u"items"_s, u"properties"_s,  u"required"_s };
    QStringList optional;
    for (auto it = properties.begin(); it != properties.end(); ++it) {
        const QJsonObject property = it.value().toObject();
        const QString text = property["description"_L1].toString();
        const QString where = QString::fromLatin1(row.name) + u'.' + it.key();
        const QStringList keys = property.keys();
        QVERIFY2(keywords.contains(QSet<QString>(keys.begin(), keys.end())), qPrintable(where));
        QVERIFY2(property.contains("items"_L1) == (property["type"_L1] == "array"_L1),
                 qPrintable(where));
        QVERIFY2(text.endsWith(u'.') && text.size() <= MaxPropertyText, qPrintable(where));
        if (requiredNames.contains(it.key()))
            continue;
        optional += it.key() + u' ' + typeOf(property);
        QVERIFY2(text.contains("Default "_L1) || text.contains("Omit "_L1), qPrintable(where));
    }
    QStringList expected = QString::fromLatin1(row.optional).split(u"; "_s, Qt::SkipEmptyParts);
    optional.sort();
    expected.sort();
    QCOMPARE(optional, expected);
}

} // namespace

class tst_catalogue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void listsTheTools()
    {
        const QJsonArray tools = catalogue();
        QCOMPARE(tools.size(), qsizetype(std::size(rows)));
        QVERIFY(QJsonDocument(tools).toJson(QJsonDocument::Compact).size() <= MaxServedBytes);
        for (size_t i = 0; i < std::size(rows); ++i)
            QCOMPARE(tools[qsizetype(i)]["name"_L1].toString(), QString::fromLatin1(rows[i].name));
    }

    void describesEveryTool_data()
    {
        QTest::addColumn<int>("index");
        for (size_t i = 0; i < std::size(rows); ++i)
            QTest::newRow(rows[i].name) << int(i);
    }

    void describesEveryTool()
    {
        QFETCH(int, index);
        const QJsonObject tool = catalogue()[index].toObject();
        const QJsonObject schema = tool["inputSchema"_L1].toObject();
        QCOMPARE(tool.keys(), (QStringList { u"description"_s, u"inputSchema"_s, u"name"_s }));
        QCOMPARE(schema.keys(), (QStringList { u"properties"_s, u"required"_s, u"type"_s }));
        QCOMPARE(schema["type"_L1].toString(), u"object"_s);
        checkSchema(schema, rows[index]);

        const QString text = tool["description"_L1].toString();
        QVERIFY(text.endsWith(u'.') && text.size() <= MaxToolText);
        QVERIFY(text.indexOf(u'.') < MaxFirstSentence || index < FixedTools);
    }

    void describesTheStepsOfInput()
    {
        for (const QJsonValue &tool : catalogue()) {
            if (tool["name"_L1].toString() == "send_input"_L1)
                checkSchema(tool["inputSchema"_L1]["properties"_L1]["actions"_L1]["items"_L1]
                                    .toObject(),
                            actionRow);
        }
    }

    void mentionsOnlyToolsThatExist()
    {
        QSet<QString> names;
        for (const Row &row : rows)
            names += QString::fromLatin1(row.name);
        const QString text = QString::fromUtf8(QJsonDocument(catalogue()).toJson());
        static const QRegularExpression word(u"[a-z]+(_[a-z]+)+"_s);
        for (auto match = word.globalMatch(text); match.hasNext();) {
            const QString mentioned = match.next().captured();
            QVERIFY2(names.contains(mentioned), qPrintable(mentioned));
        }
    }

    // The texts that every edition of the catalogue has to carry to the letter.
    void keepsTheFixedTexts_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("count");
        QTest::newRow("launch_app")
                << u"\"Launch the Orrery app (visible, foreground). Idempotent — reports "
                   "already-running. Required before VM tools can be used.\""_s
                << 1;
        QTest::newRow("quit_app")
                << u"\"Quit the Orrery app. This is the AI-control kill switch: it closes "
                   "every VM console and drops all AI access. Use mode:force only if a "
                   "graceful quit fails.\""_s
                << 1;
        QTest::newRow("app_status") << u"\"Report whether the Orrery app is running, whether its "
                                       u"control socket is reachable, and "
                                       "the RUNNING app's version/build (read live from its "
                                       "bundle, so it stays correct after an "
                                       "auto-update swaps the app mid-session). Returns running, "
                                       "pid, socketReachable, version "
                                       "(CFBundleShortVersionString), build (CFBundleVersion, the "
                                       "integer the auto-updater "
                                       "compares), and bundleId. Use version/build to state "
                                       "exactly which build a test was run "
                                       "against.\""_s
                                    << 1;
        QTest::newRow("quit mode") << u"\"Quit mode. Default graceful.\""_s << 1;
        QTest::newRow("job_wait limit") << u"\"Max seconds to block. Default 120.\""_s << 1;
        QTest::newRow("confirm") << u"\"Must be true to proceed.\""_s << 2;
        QTest::newRow("first id") << u"\"VM id (its bundle path, from list_vms).\""_s << 1;
        QTest::newRow("other ids") << u"\"VM id.\""_s << 30;
        QTest::newRow("job ids")
                << u"\"Job id, from create_vm with async:true or from list_jobs.\""_s << 2;
    }

    void keepsTheFixedTexts()
    {
        QFETCH(QString, text);
        const QString all = QString::fromUtf8(QJsonDocument(catalogue()).toJson());
        QTEST(int(all.count(text)), "count");
        QVERIFY(QString(all).remove(u'—').toUtf8().size() == QString(all).remove(u'—').size());
    }

    void isStoredAsZstd()
    {
        QFile server(QStringLiteral(SERVER_PATH));
        QVERIFY(server.open(QIODevice::ReadOnly));
        const QByteArray program = server.readAll();
        QVERIFY(program.contains(QByteArrayLiteral("\x28\xb5\x2f\xfd")));
        QVERIFY(!program.contains("Required before VM tools can be used"));
    }
};

QTEST_GUILESS_MAIN(tst_catalogue)
#include "tst_catalogue.moc"
