// What the tests of the server as a process share: a folder with the server and the scripted
// application side by side and a TMPDIR of its own, and the two as child processes.

#pragma once

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool Sanitized = true;
#else
constexpr bool Sanitized = false;
#endif

// For what comes in milliseconds unless something is broken, or a sanitizer has half a gigabyte.
constexpr int PatienceMs = Sanitized ? 300'000 : 60'000;

inline QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

inline QJsonObject parsed(const QByteArray &line) { return QJsonDocument::fromJson(line).object(); }

inline QByteArray toolCall(const QJsonValue &id, const QString &name,
                           const QJsonObject &arguments = {})
{
    return compact({ { u"id"_s, id },
                     { u"method"_s, u"tools/call"_s },
                     { u"params"_s,
                       QJsonObject { { u"name"_s, name }, { u"arguments"_s, arguments } } } });
}

// The arguments of a call that tell the scripted application what to do; see there.
inline QJsonObject withSteps(const QByteArray &steps)
{
    return { { u"steps"_s, QJsonDocument::fromJson(steps).array() } };
}

// The text of a tool result, and the object in it.
inline QString resultText(const QJsonObject &response)
{
    return response["result"_L1]["content"_L1][0]["text"_L1].toString();
}

inline QJsonObject resultObject(const QJsonObject &response)
{
    return parsed(resultText(response).toUtf8());
}

inline bool isError(const QJsonObject &response)
{
    return response["result"_L1]["isError"_L1].toBool();
}

// How an event of the application reaches the client.
inline QByteArray eventLine(const QByteArray &data)
{
    return R"({"jsonrpc":"2.0","method":"notifications/message","params":{"data":)" + data
           + R"(,"level":"info","logger":"orrery"}})";
}

// Steps of the scripted application, see there: it sends a text, and what follows it; the answer 1.
inline QByteArray sendStep(const QByteArray &text, const QByteArray &then = {})
{
    return '[' + compact({ { u"send"_s, QString::fromUtf8(text) } }) + then + ']';
}
const QByteArray Answer = "{\"id\":$id,\"result\":1}\n";

const QString notUp = u"Orrery call failed: Orrery started but its control pipe did not come up "
                      "within 30 s."_s;

// An installation of its own: PREFIX/orrery-mcp, PREFIX/orrery, and PREFIX/tmp as TMPDIR. Whatever
// runs the application's file is ended with it.
class Installation
{
public:
    explicit Installation(const QString &server = QStringLiteral(SERVER_PATH))
    {
        QDir(root.path()).mkdir(u"tmp"_s);
        QFile::copy(server, path(u"orrery-mcp"_s));
        QFile::copy(QStringLiteral(FAKE_PATH), path(u"orrery"_s));
        environment.insert(u"TMPDIR"_s, path(u"tmp"_s));
        for (const char *variable :
             { "ORRERY_MCP_CLIENT", "MCP_CLIENT_NAME", "ORRERY_MCP_DEBUG", "APPDIR", "APPIMAGE" })
            environment.remove(QString::fromLatin1(variable));
    }

    ~Installation() { endApplications(); }

    QString folder() const { return root.path(); }
    QString path(const QString &name) const { return QDir(root.path()).filePath(name); }
    QString pipePath() const { return path(u"tmp/orrery-control-%1"_s.arg(getuid())); }

    // The living processes whose executable lies in this folder and is not the server.
    QList<qint64> applications() const
    {
        QList<qint64> pids;
        const QStringList entries = QDir(u"/proc"_s).entryList(QDir::Dirs);
        for (const QString &entry : entries) {
            const QString image = QFile::symLinkTarget("/proc/%1/exe"_L1.arg(entry));
            if (image.startsWith(root.path()) && !image.startsWith(path(u"orrery-mcp"_s)))
                pids += entry.toLongLong();
        }
        return pids;
    }

    // Kills them and waits until they are gone and nobody takes connections any more. Of a process
    // that ends, the executable can no longer be read first, then the sockets close, and only then
    // does it count as ended; who comes in between meets a holder that is gone at once.
    void endApplications() const
    {
        for (const qint64 pid : applications()) {
            pollfd end { int(syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0)), POLLIN, 0 };
            kill(static_cast<pid_t>(pid), SIGKILL);
            if (end.fd < 0)
                continue; // it was gone already
            poll(&end, 1, PatienceMs);
            close(end.fd);
        }
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, qPrintable(pipePath()), sizeof address.sun_path);
        const QDeadlineTimer deadline(PatienceMs);
        for (bool taken = true; taken && !deadline.hasExpired();) {
            const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            taken = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
            close(fd);
        }
    }

    // Steps of the scripted application for a method; see there.
    void script(const QString &method, const QByteArray &steps) const
    {
        write(method + ".json"_L1, steps);
    }

    void write(const QString &name, const QByteArray &contents) const
    {
        QFile file(path(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }

    QByteArray read(const QString &name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // Runs a shell command in the folder; true when it succeeds.
    bool shell(const QByteArray &command) const
    {
        QProcess process;
        process.setWorkingDirectory(folder());
        process.start(u"sh"_s, { u"-c"_s, QString::fromUtf8(command) });
        return process.waitForFinished() && process.exitCode() == 0;
    }

    // The requests that the scripted application got, as its lines.
    QList<QJsonObject> received() const
    {
        QList<QJsonObject> requests;
        const QList<QByteArray> lines = read(u"received"_s).split('\n');
        for (const QByteArray &line : lines) {
            if (!line.isEmpty())
                requests += parsed(line);
        }
        return requests;
    }

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();

private:
    QTemporaryDir root;
};

// One whose server has the time limits that hasty-server is built with.
class HastyInstallation : public Installation
{
public:
    HastyInstallation() : Installation(QStringLiteral(HASTY_SERVER_PATH)) { }

    static constexpr qint64 SecondMs = HASTY_SECOND_MS;
    static constexpr qint64 MinuteMs = HASTY_MINUTE_MS;
};

// A child process that is ended with its object.
class Child
{
public:
    Child(const QString &program, const QStringList &arguments,
          const QProcessEnvironment &environment)
    {
        process.setProgram(program);
        process.setArguments(arguments);
        process.setProcessEnvironment(environment);
    }

    ~Child()
    {
        process.kill();
        process.waitForFinished(PatienceMs);
    }

    // The next line of its output without the line feed; null when none comes.
    QByteArray line(int ms = PatienceMs)
    {
        const QDeadlineTimer deadline(ms);
        while (!process.canReadLine() && process.waitForReadyRead(int(deadline.remainingTime()))) {
        }
        QByteArray text = process.readLine();
        text.chop(text.endsWith('\n') ? 1 : 0);
        return text;
    }

    // A file of proc(5).
    QByteArray proc(const QString &name) const
    {
        QFile file(u"/proc/%1/%2"_s.arg(process.processId()).arg(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    qint64 residentBytes() const
    {
        return proc(u"statm"_s).split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE);
    }

    QProcess process;
};

// The scripted application of an installation, started by the test and listening.
class Application : public Child
{
public:
    explicit Application(const Installation &home, const QString &program = {},
                         const QStringList &arguments = {})
        : Child(program.isEmpty() ? home.path(u"orrery"_s) : program, arguments, home.environment)
    {
        process.start();
        listening = line() == "listening";
    }

    // How many descriptors it has open; 0 once it has ended.
    qsizetype openFiles() const
    {
        const QDir dir(u"/proc/%1/fd"_s.arg(process.processId()));
        return dir.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
    }

    bool listening = false;
};

// The server of an installation.
class Server : public Child
{
public:
    explicit Server(const Installation &home, const std::function<void()> &inChild = {})
        : Child(home.path(u"orrery-mcp"_s), {}, home.environment)
    {
        if (inChild)
            process.setChildProcessModifier(inChild);
        process.start();
    }

    void send(const QByteArray &text) { process.write(text + '\n'); }

    // The answer to a tool call, of which events and answers to other requests are no part.
    QJsonObject call(const QString &tool, const QJsonObject &arguments = {})
    {
        const QString id = u"call %1"_s.arg(++lastId);
        send(toolCall(id, tool, arguments));
        for (;;) {
            const QByteArray text = line();
            const QJsonObject message = parsed(text);
            if (text.isEmpty() || message["id"_L1] == id)
                return message;
        }
    }

    QJsonObject callSteps(const QByteArray &steps, const QString &tool = u"get_vm"_s)
    {
        return call(tool, withSteps(steps));
    }

    QJsonObject status() { return resultObject(call(u"app_status"_s)); }

    // Ends its input and waits; the exit status, or -1 when it did not end by itself.
    int finish(int ms = PatienceMs)
    {
        process.closeWriteChannel();
        if (process.state() != QProcess::NotRunning && !process.waitForFinished(ms))
            return -1;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

private:
    int lastId = 0;
};
