// The workers of this process.
#pragma once

#include <string>

#include "WorkerProcess.h"

/// The picture of the clip at `path`, made by a worker: waits for one to be free, and then as long as a
/// worker may take. Any thread. May throw std::bad_alloc.
WorkerReply askWorkers(const std::wstring& path, UINT size);

/// Ends all idle workers. No question is on its way when the server says that it can be unloaded.
void endIdleWorkers() noexcept;

/// Ends all workers when the library is unloaded: takes no lock and waits for nothing.
void endWorkersAtUnload() noexcept;
