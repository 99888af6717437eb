// What a worker may do.
#pragma once

#include <windows.h>

#include "OwnedHandle.h"

/// A job for one worker: it ends with the job's last handle, starts no other process, holds at most `memory`
/// bytes, and an exception that nobody handles ends it without a question. Empty when Windows refuses.
OwnedHandle createWorkerJob(size_t memory);

/// This process's own token with low integrity: its holder can read what the user can and write nearly
/// nowhere. Empty on failure.
OwnedHandle createLowIntegrityToken();
