// The server's limits: how long it waits for what, in milliseconds, and how large what it handles
// may be, in bytes.

#pragma once

#include <QtGlobal>

#include <chrono>

// A build for tests divides the times, so that what takes minutes can be waited for.
#ifndef ORRERY_HASTE
#define ORRERY_HASTE 1
#endif

namespace Limits {

// Relayed calls.
constexpr int CallMs = 300'000 / ORRERY_HASTE;
constexpr int LongCallMs = 1'860'000 / ORRERY_HASTE;
constexpr int WriteMs = 5'000 / ORRERY_HASTE;
constexpr int WaitSliceMs = 250; // how late a cancellation or a closed connection is noticed

// Reaching the control pipe.
constexpr int ConnectAttemptMs = 500;
constexpr int ConnectPauseMs = 250;
constexpr int BacklogPauseMs = 10;
constexpr int ProbeMs = 1'500;

// Launching and quitting.
constexpr int RunningConnectMs = 3'000 / ORRERY_HASTE;
constexpr int RunningHelloMs = 5'000 / ORRERY_HASTE;
constexpr int StartedConnectMs = 30'000 / ORRERY_HASTE;
constexpr int StartedHelloMs = 600'000 / ORRERY_HASTE; // the user may have to allow the client
constexpr int QuitConnectMs = 2'000 / ORRERY_HASTE;
constexpr int QuitRequestMs = 5'000 / ORRERY_HASTE;
constexpr int QuitExitMs = 10'000 / ORRERY_HASTE;
constexpr int KillExitMs = 5'000 / ORRERY_HASTE;

constexpr std::chrono::milliseconds Quiet { 500 };

constexpr qsizetype InputChunkBytes = 65'536;
constexpr qsizetype MaxPipeLineBytes = 268'435'456;
constexpr qsizetype PipeChunkBytes = 1'048'576; // read ahead or written at a time, at most

constexpr qsizetype LargeBytes = 262'144; // what is worth giving its memory back
constexpr qsizetype MaxParsedBytes = 1'342'177'280; // what a line may cost once it is parsed
constexpr qsizetype MaxMessageBytes = 536'870'912; // one message to the client or the application

} // namespace Limits
