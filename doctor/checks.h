// The doctor's checks, in the order in which they are made. Each adds its lines to the report; none
// changes anything, but for checkConversation() when it is told to launch.

#pragma once

class Report;

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

// Starts the server and asks what a client asks first. With launch, has it start the application
// and relay a call that only looks.
void checkConversation(Report &report, bool launch);
