// Which request a log line speaks of.
#pragma once

#include <cstdint>
#include <ostream>

/// Queue tag of a request that sits in no queue of a host.
inline constexpr uint64_t brNoQueueId = 4294967295;
/// Queue tag that matches every other one.
inline constexpr uint64_t brAnyQueueId = 4294967294;
inline constexpr uint64_t brNoClipId = UINT64_MAX;

struct brRequestIdentity {
    uint64_t queueId = brNoQueueId;
    uint64_t requestId = 0;
    uint64_t clipId = brNoClipId;
    uint64_t frameIndex = 0;
};

/// "[Q-1C0#0I0] ": the tag that every line about a request starts with.
inline std::ostream& operator<<(std::ostream& stream, const brRequestIdentity& identity) {
    return stream << "[Q" << static_cast<int32_t>(identity.queueId) << "C" << identity.clipId << "#"
                  << identity.frameIndex << "I" << identity.requestId << "] ";
}
