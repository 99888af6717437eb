// The CUDA runtime: bound only when needed, from this library's own folder first, and never required.
//
// Every operation reports a missing or broken runtime as a value. A function that could not be bound is tried
// again by the next call that needs it. Any thread may call them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

inline constexpr char cudaRuntimeFile[] = "cudart64_110.dll";

/// Error number of our own for a runtime that cannot be loaded or lacks a function; the runtime's own error
/// numbers are positive.
inline constexpr int cudaRuntimeNotLoaded = -1;

/// Binds every function of the runtime now. False, with `message` saying why, when that fails.
bool loadCudaRuntime(std::string& message) noexcept;

/// The same for a delay-loaded library by its file name. This module has none but the runtime: for any other
/// name it fails.
bool loadDelayedLibrary(const char* fileName, std::string& message) noexcept;

/// Free and total device memory in bytes; both are 0 when the runtime cannot tell. Gives the runtime's error
/// number, 0 for success.
int cudaDeviceMemory(std::size_t& freeBytes, std::size_t& totalBytes) noexcept;

/// Directions of a copy, by the runtime's own numbers.
enum class cudaCopyKind : int { deviceToHost = 2, byAddress = 4 };

/// Copies `size` bytes and waits for it. Gives the runtime's error number, 0 for success.
int cudaCopy(void* destination, const void* source, std::size_t size, cudaCopyKind kind) noexcept;

/// Where the runtime lies when it lies beside `moduleFile` (a full path); both UTF-8. Empty, with a log line,
/// when that path is longer than the runtime is looked for under. May throw std::bad_alloc.
std::string cudaRuntimePath(std::string_view moduleFile);
