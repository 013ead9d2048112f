#include "process.h"

#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

constexpr qint64 MaxOutputBytes = 16 << 20;

void startBound(QProcess &process, const QString &program, const QStringList &arguments,
                const QList<int> &inherited)
{
    const pid_t parent = getpid();
    process.setChildProcessModifier([parent, inherited] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) // it ended before that
            _exit(1);
        for (const int descriptor : inherited)
            fcntl(descriptor, F_SETFD, 0);
    });
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, arguments);
}

Later<Outcome> run(const QString &program, const QStringList &arguments, int limitMs)
{
    auto *process = new QProcess;
    const auto outcome = std::make_shared<Outcome>();
    const Later<Outcome> done;
    const auto read = [process, outcome] {
        outcome->output += process->readAllStandardOutput();
        outcome->errors += process->readAllStandardError();
        outcome->tooMuch = outcome->output.size() + outcome->errors.size() > MaxOutputBytes;
        if (outcome->tooMuch)
            process->kill();
    };
    const auto end = [=](int exitCode) {
        read();
        outcome->exitCode = exitCode;
        done.set(*outcome);
        process->deleteLater();
    };
    QObject::connect(process, &QProcess::readyReadStandardOutput, process, read);
    QObject::connect(process, &QProcess::readyReadStandardError, process, read);
    QObject::connect(process, &QProcess::finished, process,
                     [end](int exitCode, QProcess::ExitStatus status) {
                         end(status == QProcess::NormalExit ? exitCode : -1);
                     });
    QObject::connect(process, &QProcess::errorOccurred, process, [=](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            end(-1);
    });
    QTimer::singleShot(limitMs, process, [process, outcome] {
        outcome->timedOut = true;
        process->kill();
    });
    startBound(*process, program, arguments);
    return done;
}
