// Which clips ended their workers, so that a folder with one of them does not start workers for ever.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <windows.h>

/// Remembers a clip by its path, size and time; one that has changed since may be asked for again. Without
/// constructor and destructor, all bytes zero at first. The caller sees to it that one thread at a time
/// calls.
class KillerClips {
public:
    /// S_OK, or why the clip must not be asked for now: GUARD_E_CLIP_KILLS or GUARD_E_PAUSE. For a remembered
    /// clip S_OK stands under a condition: that its state is another one than `killerState`, which is 0 else.
    HRESULT refusal(const std::wstring& path, uint64_t& killerState) const noexcept;
    /// A worker has answered: whatever ended others before was not the decoder as such.
    void answered() noexcept { m_deathsInARow = 0; }
    /// A worker came to its end over this clip, by itself or by us. A state of 0: it was not even seen.
    void killed(const std::wstring& path, uint64_t state) noexcept;
    /// A worker came to its end before it saw its question: no clip's fault, but no reason to go on either.
    void diedUnasked() noexcept { died(++m_namelessDeaths); }

private:
    static constexpr size_t capacity = 64;
    static constexpr int deathsUntilPause = 3;

    struct Killer {
        uint64_t path;  ///< a hash; 0: a free entry
        uint64_t state; ///< of the clip when it ended the worker
        uint64_t until; ///< in milliseconds since the system's start
    };
    void died(uint64_t cause) noexcept;

    Killer m_killers[capacity];
    uint64_t m_pauseUntil;
    uint64_t m_lastCause;
    uint64_t m_namelessDeaths;
    int m_deathsInARow;
};
