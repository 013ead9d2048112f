// orrery-mcp-doctor: says why an AI client does not reach Orrery. Judges by the server's own rules,
// with the environment that it is given, and changes nothing unless told to launch.

#include "checks.h"
#include "host_process.h"
#include "orrery_control.h"
#include "report.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>

#include <csignal>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int NothingTold = 2;

const QCommandLineOption
        bareOption(u"bare"_s,
                   u"Check as under a client that passes only HOME, LOGNAME, PATH, SHELL, TERM "
                   "and USER on."_s);
const QCommandLineOption
        launchOption(u"launch"_s,
                     u"Have the server start Orrery if it does not run, and list its machines; "
                     "Orrery keeps running."_s);
const QCommandLineOption jsonOption(u"json"_s, u"Print one JSON report, to attach to a message."_s);
const QCommandLineOption helpOption({ u"h"_s, u"help"_s }, u"Print this."_s);

// Starts this program again with these variables only, so that nothing, libraries included, has
// seen the others. Returns when there are no others, or when it cannot.
void leaveVariablesBehind(char *argv[])
{
    QByteArrayList names { "HOME", "LOGNAME", "PATH", "SHELL", "TERM", "USER" };
    if (!OrreryControl::ownAppImage().isEmpty())
        names += { "APPIMAGE", "APPDIR" }; // from the start of the image, not from the client
    std::vector<char *> kept;
    bool others = false;
    for (char **entry = environ; *entry; ++entry) {
        if (names.contains(QByteArray(*entry).split('=').first()))
            kept.push_back(*entry);
        else
            others = true;
    }
    kept.push_back(nullptr);
    if (others)
        execve("/proc/self/exe", argv, kept.data());
}

void print(FILE *stream, const QString &text)
{
    std::fputs(text.toUtf8().constData(), stream);
    std::fflush(stream);
}

QString introduction(bool bare, bool launch)
{
    return u"orrery-mcp-doctor %1, as %2, with %3.\n%4"_s.arg(
            HostProcess::exeVersion({}, u"ProductVersion"_s), userText(getuid()),
            bare ? u"six variables only, as under many clients"_s
                 : u"this shell's variables; many clients pass fewer on (--bare)"_s,
            launch ? u"Orrery may ask in its window whether to allow this client; it is given a "
                     "minute.\n"_s
                   : QString());
}

// True if there is a fault.
bool check(bool bare, bool launch, bool json)
{
    Report report(!json);
    if (!json)
        print(stdout, introduction(bare, launch));
    checkInstallation(report);
    checkEnvironment(report);
    checkApplication(report);
    checkSocket(report);
    checkConversation(report, launch);
    if (json) {
        const QJsonObject members {
            { u"program"_s, u"orrery-mcp-doctor"_s },
            { u"version"_s, HostProcess::exeVersion({}, u"ProductVersion"_s) },
            { u"time"_s, QDateTime::currentDateTimeUtc().toString(Qt::ISODate) },
            { u"user"_s, userText(getuid()) },
            { u"bare"_s, bare },
            { u"launch"_s, launch },
        };
        print(stdout, QString::fromUtf8(QJsonDocument(report.json(members)).toJson()));
    } else {
        const QString notTried = u" Not tried: whether Orrery starts, lets a client in and "
                                 "answers; --launch does that."_s;
        print(stdout, report.summary() + (launch ? QString() : notTried) + u'\n');
    }
    return report.hasFault();
}

} // namespace

int main(int argc, char *argv[])
{
    // Nothing that is opened later lands on a missing standard stream.
    for (const int standard : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO }) {
        if (fcntl(standard, F_GETFD) < 0)
            (void)open("/dev/null", O_RDWR); // the lowest number that is free
    }
    std::signal(SIGPIPE, SIG_IGN);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(u"Says why an AI client does not reach Orrery."_s);
    parser.addOptions({ bareOption, launchOption, jsonOption, helpOption });
    const bool understood = parser.parse(QCoreApplication::arguments());
    const QStringList operands = parser.positionalArguments();
    if (!understood || !operands.isEmpty()) {
        const QString error = understood ? u"Unexpected argument: "_s + operands.first() + u'.'
                                         : parser.errorText();
        print(stderr, error + u'\n' + parser.helpText());
        return NothingTold;
    }
    bool hasFault = false;
    if (parser.isSet(helpOption)) {
        print(stdout, parser.helpText());
    } else {
        const bool bare = parser.isSet(bareOption);
        if (bare)
            leaveVariablesBehind(argv);
        hasFault = check(bare, parser.isSet(launchOption), parser.isSet(jsonOption));
    }
    if (std::ferror(stdout)) {
        print(stderr, u"orrery-mcp-doctor: standard output cannot be written\n"_s);
        return NothingTold;
    }
    return hasFault ? 1 : 0;
}
