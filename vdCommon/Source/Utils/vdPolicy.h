// What an administrator or the user may decide about the handler, read from the registry.
//
// The settings file is the user's alone and is not read in what users get; these few numbers are, at the
// moment that they are needed, so that a change counts from the next thumbnail on.
#pragma once

#include <windows.h>

/// Each is a REG_DWORD with a name and bounds; see the table in vdPolicy.cpp.
enum class vdPolicy {
    cloudThumbnails,    ///< 1: clips that lie in a cloud or an archive are fetched for their thumbnails
    failureEvents,      ///< 0: a failed thumbnail leaves no event
    workers,            ///< how many there may be; 0: one for each processor, at most four
    workerSeconds,      ///< how long a worker may take for one thumbnail
    workerIdleSeconds,  ///< how long a worker waits for the next question before it goes
    workerMegabytes,    ///< how much memory a worker may take
    workerLowIntegrity, ///< 1: workers run at low integrity and start no processes
    killerMinutes,      ///< how long a clip that ended its worker is not asked again
    pauseSeconds,       ///< how long nothing is asked after three clips in a row ended their workers
    count
};

/// The first valid value of: the machine's policy, the user's policy (Software\Policies\Verdane\Clipforge),
/// the user's choice, the machine's choice (Software\Verdane\Clipforge); else the initial value. A value of
/// another type or beyond its bounds counts as missing. Any thread.
DWORD policyValue(vdPolicy policy) noexcept;
