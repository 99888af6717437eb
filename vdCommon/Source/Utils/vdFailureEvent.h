// The trace that a failed thumbnail leaves in what users get: an event in Windows' application log.
//
// Nothing has to be installed for it, and nothing stays registered or open: each event finds the log anew.
#pragma once

#include <cstdint>

#include <windows.h>

/// At most `most` within `interval`, counted from the first. Not guarded.
class vdRateLimit {
public:
    constexpr vdRateLimit(uint32_t most, uint64_t interval) noexcept : m_most(most), m_interval(interval) {}

    /// `now` has the interval's unit and never runs backwards. `leftOut` tells how many were refused since
    /// the last one that was not.
    bool admits(uint64_t now, uint32_t& leftOut) noexcept;

private:
    const uint32_t m_most;
    const uint64_t m_interval;
    uint64_t m_start = 0;
    uint32_t m_count = 0;
    uint32_t m_leftOut = 0;
};

struct vdThumbnailFailure {
    const wchar_t* clip;       ///< its path
    const wchar_t* stage;      ///< what was being done
    HRESULT code;              ///< what the shell is told
    uint32_t requestError = 0; ///< the request's own code, when it came to a request
};

/// Leaves one event unless the policy forbids it or the process has left too many lately. Never fails: what
/// cannot be written is lost. Any thread; waits for Windows' event log, so hold no lock.
void reportFailure(const vdThumbnailFailure& failure) noexcept;
