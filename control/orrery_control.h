// The control module, which both ends of Orrery's control pipe share: the application and its
// clients. It names the pipe, and tells who is at its other end and which program a process runs.
//
// All functions are stateless; those that ask where this program lies need a QCoreApplication.
// Nothing here reports an error: what cannot be read is unknown (0 or an empty string), and what is
// unknown is not trusted.

#pragma once

#include <QString>

class QLocalSocket;

namespace OrreryControl {

// The pipe's local-socket server name, "orrery-control-" and the real user id in decimal. Qt places
// a name without a slash in the temporary directory (TMPDIR, else /tmp).
[[nodiscard]] QString pipeName();

// Connects the socket to the pipe, whoever holds it. Gives up at once when it cannot connect, and
// after about limitMs milliseconds when the listener takes no connections. On false, the socket's
// error() tells why: SocketAccessError if this user may not connect, ConnectionRefusedError if
// nobody listens, ServerNotFoundError if the pipe is not there, another error if the listener takes
// no connections.
bool reachPipe(QLocalSocket &socket, int limitMs);

// The process that holds the server end of a connected client's pipe, as the kernel recorded it
// (SO_PEERCRED, unix(7)). 0 when the socket is not connected or the holder is another user's.
[[nodiscard]] unsigned long peerServerPid(const QLocalSocket &socket);

// The same for the server end: the process that connected, or 0.
[[nodiscard]] unsigned long peerClientPid(const QLocalSocket &socket);

// The path of the executable that a process runs (/proc/PID/exe, proc(5)), without the " (deleted)"
// that Linux appends once the file is gone. If this program and the process both come from one
// AppImage file, the path is the one inside this program's own mount, provided that the file there
// has the same contents (files over 256 MiB never count). Empty when it cannot be read.
[[nodiscard]] QString processImagePath(unsigned long pid);

// The value of a variable in the environment that a process was started with (/proc/PID/environ,
// its first MiB), decoded from the local encoding. Null when it is not there or cannot be read.
[[nodiscard]] QString startEnv(unsigned long pid, const QByteArray &name);

// processImagePath() of the process's parent; empty when there is none or it cannot be read.
[[nodiscard]] QString parentImagePath(unsigned long pid);

// Whether a process runs the file called name that lies next to this program's executable, symbolic
// links resolved on both sides. False unless both files exist.
[[nodiscard]] bool isSiblingProcess(unsigned long pid, const QString &name);

// The path of the file called name next to this program's executable; it need not exist. Empty when
// the executable's own path is unknown.
[[nodiscard]] QString siblingPath(const QString &name);

// The file name of an executable called name on this platform: on Linux, name itself.
[[nodiscard]] QString exeName(const QString &name);

// Whether two paths are the same string. Nothing is resolved or normalised.
[[nodiscard]] bool samePath(const QString &a, const QString &b);

// Whether this program lies below APPDIR, symbolic links resolved.
[[nodiscard]] bool isInsideAppDir();

// The canonical path of the AppImage file that this program runs from, empty when it runs from
// none. APPIMAGE is believed only if isInsideAppDir().
[[nodiscard]] QString ownAppImage();

} // namespace OrreryControl
