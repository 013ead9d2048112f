// The doctor's checks, in the order in which it makes them. Each adds its lines to the report; none
// but checkLaunch() changes anything.

#pragma once

#include <QString>

class Report;
class ServerProcess;

// What lies beside this program: the server and the application; and whether they come from an
// AppImage.
void checkInstallation(Report &report);

// The environment of this program, which the server and an application that it launches get as
// well: the temporary folder, the display, a sandbox.
void checkEnvironment(Report &report);

// The application's processes, and whether they use the same temporary folder.
void checkApplication(Report &report);

// The control socket, and who holds it. Connects, and sends nothing.
void checkSocket(Report &report);

// Starts the server and sends what a client sends first. With launch, goes on to checkLaunch().
void checkConversation(Report &report, bool launch);

// Has the server relay a read-only call, for which it starts the application if need be, and finds
// out what became of that. Tries nothing when the report has a fault already.
void checkLaunch(Report &report, ServerProcess &server);

// The path of the server's file beside this program; it need not exist.
[[nodiscard]] QString serverPath();

// The path of the control socket; it need not exist.
[[nodiscard]] QString socketPath();

// A user's name and id, as in "root (0)".
[[nodiscard]] QString userText(unsigned user);

// The beginning of a file below /proc, whose size shows only in reading; empty when it cannot be
// read.
[[nodiscard]] QByteArray procText(const QString &path);
