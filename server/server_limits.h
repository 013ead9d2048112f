// The server's limits: how long it waits, in milliseconds, and how large messages may be, in bytes.

#pragma once

#include <QtGlobal>

// A build for tests has shorter seconds and minutes, so that what takes minutes can be waited for.
#ifndef ORRERY_SECOND_MS
#define ORRERY_SECOND_MS 1'000
#define ORRERY_MINUTE_MS 60'000
#endif

namespace Limits {

constexpr int SecondMs = ORRERY_SECOND_MS;
constexpr int MinuteMs = ORRERY_MINUTE_MS;

// Relayed calls.
constexpr int CallMs = 5 * MinuteMs;
constexpr int LongCallMs = 31 * MinuteMs;
constexpr int WriteMs = 5 * SecondMs;
constexpr int WaitSliceMs = 250; // how late a cancellation or a closed connection is noticed
constexpr int ClientIdleMs = 250; // a shorter time in which the client takes nothing is not counted

// Reaching the control pipe.
constexpr int ConnectAttemptMs = 500;
constexpr int ConnectPauseMs = 250;
constexpr int ProbeMs = 1'500;

// Launching and quitting.
constexpr int RunningConnectMs = 3 * SecondMs;
constexpr int RunningHelloMs = 5 * SecondMs;
constexpr int StartedConnectMs = 30 * SecondMs;
constexpr int StartedHelloMs = 10 * MinuteMs; // the user may have to allow the client
constexpr int QuitConnectMs = 2 * SecondMs;
constexpr int QuitRequestMs = 5 * SecondMs;
constexpr int QuitExitMs = 10 * SecondMs;
constexpr int KillExitMs = 5 * SecondMs;

constexpr qsizetype ChunkBytes = 65'536; // for which there is room whenever something is read
constexpr qsizetype MaxPipeLineBytes = 268'435'456;
constexpr qsizetype EventBatchBytes = 65'536; // of events that go out in one write
constexpr qsizetype MaxParsedBytes = 1'342'177'280; // what a line may cost once it is parsed
constexpr qsizetype MaxMessageBytes = 536'870'912; // one message to the client or the application

} // namespace Limits
