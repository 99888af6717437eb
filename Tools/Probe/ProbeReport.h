// What the child that meets the library tells its parent while it goes: a block of shared memory that
// survives whatever becomes of the child.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace probe {

enum class Verdict : uint32_t {
    none,    ///< the row is not in use yet
    running, ///< the call has begun; a child that ends or stands still does so here
    good,
    failed,     ///< the call says that it failed
    impossible, ///< the call says that it succeeded, but what it gave cannot be true
};

/// One call. The child writes a row, `verdict` last; texts end with a zero, cut where they are too long.
struct Row {
    std::atomic<Verdict> verdict;
    uint32_t stage; ///< index into `stages()`
    uint32_t thread;
    int32_t result;       ///< HRESULT
    int64_t begun, ended; ///< ticks of the performance counter
    wchar_t value[192];
    wchar_t doubt[192]; ///< why the value cannot be true
};

struct Report {
    static constexpr uint32_t maximumRows = 160;
    static constexpr int sketchWidth = 48, sketchHeight = 16;

    std::atomic<uint32_t> rowCount;
    std::atomic<uint32_t> progress;      ///< changes with each beginning and end of a call
    std::atomic<uint32_t> awaitedStage;  ///< of the callback that the library owes, or `noStage`
    std::atomic<uint32_t> isComplete;    ///< the road was walked to its end, or to a trouble that is in a row
    std::atomic<uint32_t> crashedThread; ///< 0 while there was no crash
    wchar_t crash[192];                  ///< what crashed where
    wchar_t sketch[sketchHeight][sketchWidth + 1]; ///< the picture in characters; empty rows are not used
    Row rows[maximumRows];
};
inline constexpr uint32_t noStage = ~0u;

static_assert(std::atomic<Verdict>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);

/// Copies what fits.
template <size_t size>
void setText(wchar_t (&place)[size], std::wstring_view text) {
    place[text.copy(place, size - 1)] = L'\0';
}

} // namespace probe
