// An allocator in the place of operator new: it counts, fails when it is told to, and, in the hardened build,
// guards every block. Linked into whichever module shall have it.
#pragma once

#include <atomic>
#include <cstdint>

/// All zero is the valid initial state. Any thread may change it at any time.
struct ProofAllocatorControl {
    std::atomic<int64_t> countdown; ///< the allocation that brings it to 0 fails; 0: none does
    std::atomic<bool> staysEmpty;   ///< those after it fail as well, until this is cleared
    std::atomic<bool> isEmpty;      ///< such a shortage has begun
    std::atomic<int64_t> failures;
    std::atomic<int64_t> allocations; ///< failed ones included
    std::atomic<int64_t> liveBlocks;
};

/// What the program's own allocations go by.
ProofAllocatorControl& programAllocator();

/// What the allocations of all libraries go by that were linked with the allocator; the program exports it,
/// so that it is there before a library and after it.
extern "C" __declspec(dllexport) ProofAllocatorControl* librariesAllocator();
