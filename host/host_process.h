// The host module: this installation's application as a process on this host. Finds it, tells its
// version, waits for its end and kills it.

#pragma once

#include <QList>
#include <QString>

namespace HostProcess {

// The path of the application's file, "orrery" next to this program; it need not exist. Empty when
// this program's own path is unknown.
[[nodiscard]] QString appExe();

// The id of a process of this user that executes the application's file (proc(5)); 0 when there is
// none. If several run, the first that /proc lists.
[[nodiscard]] unsigned long findApp();

// All of them, in that order.
[[nodiscard]] QList<unsigned long> findApps();

// A process that findApp() does not count: one of this user's of which the kernel does not tell
// which file it executes, but that has the file's name; else one of another user's that executes
// the file, or has its name in the same way; 0 when there is none. For reports only: any process
// can have a name.
[[nodiscard]] unsigned long findForeignApp();

// Whether a process, of any user, executes that file. False when nobody can tell.
[[nodiscard]] bool isApp(unsigned long pid);

// The version of the executable at path: the product version ("0.1.147") for the key
// "ProductVersion", the build number ("147") for every other key. Both are fixed when the program
// is built, together with the application; the file is not examined.
[[nodiscard]] QString exeVersion(const QString &path, const QString &key);

// Put standard output and standard input into raw byte mode, where a platform converts line ends.
// On Linux there is nothing to do.
void binaryStdout();
void binaryStdin();

// A handle on a running process (pidfd_open(2), Linux 5.3). It keeps meaning the process that had
// the id when the handle was opened, even if the id is reused. A handle that could not be opened is
// empty, and quietly does nothing.
class Handle
{
public:
    explicit Handle(unsigned long pid);
    ~Handle();
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;

    [[nodiscard]] bool isValid() const;

    // For poll(2): readable once the process has ended. -1 when empty.
    [[nodiscard]] int descriptor() const;

    // Waits at most ms milliseconds (without limit when negative) for the process to end. True when
    // it has ended; false on a timeout, an error, a signal that interrupted the wait, or an empty
    // handle.
    [[nodiscard]] bool waitExit(int ms);

    // Kills the process with SIGKILL. waitExit() tells whether it has ended.
    void terminate();

private:
    quint64 descriptorPlusOne = 0; // a descriptor may be 0, so that 0 can mean empty
};

} // namespace HostProcess
