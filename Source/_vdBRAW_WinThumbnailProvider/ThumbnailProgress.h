// How far the thumbnail in work has come, for the event that a failed one leaves.
#pragma once

#include <cstdint>

struct ThumbnailProgress {
    const wchar_t* stage = L"";
    uint32_t requestError = 0; ///< the request's own code when it failed
};

/// The thumbnail's that holds the provider's process-wide lock, as g_manager is.
inline ThumbnailProgress g_progress;
