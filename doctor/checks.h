// The doctor's checks, in the order in which they are made. Each adds its lines to the report; none
// changes anything, but for checkLaunch().

#pragma once

#include <QString>

class Report;
class ServerProcess;

// What lies beside this program: the server, the application, and whether both come from an
// AppImage.
void checkInstallation(Report &report);

// What this program was started with, and so what the server and an application that it launches
// get: the temporary folder, the display, a sandbox.
void checkEnvironment(Report &report);

// The application's processes, and whether they use the same temporary folder.
void checkApplication(Report &report);

// The control socket, and who holds it. Connects, and sends nothing.
void checkSocket(Report &report);

// Starts the server and asks what a client asks first. With launch, goes on to checkLaunch().
void checkConversation(Report &report, bool launch);

// Has the server relay a call that only looks, for which it starts the application if that does not
// run, and finds out what became of it. Does nothing when the report has a fault already.
void checkLaunch(Report &report, ServerProcess &server);

// The path of the server's file beside this program; it need not exist.
[[nodiscard]] QString serverPath();

// The path of the control socket; nothing need be there.
[[nodiscard]] QString socketPath();

// A user as a reader knows one: "root (0)".
[[nodiscard]] QString userText(unsigned user);

// The beginning of a file of /proc, whose size is not known before it is read; empty when it cannot
// be read.
[[nodiscard]] QByteArray procText(const QString &path);
