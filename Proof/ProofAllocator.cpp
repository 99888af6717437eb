#include "ProofAllocator.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include <malloc.h>
#include <windows.h>

extern "C" const char __ImageBase[];

namespace {

constinit ProofAllocatorControl g_program{};
constinit ProofAllocatorControl g_libraries{};
constinit std::atomic<ProofAllocatorControl*> g_mine{nullptr};

ProofAllocatorControl& findMine() {
    const HMODULE program = GetModuleHandleW(nullptr);
    if (reinterpret_cast<const char*>(program) == __ImageBase)
        return g_program;
    const auto shared = reinterpret_cast<ProofAllocatorControl* (*)()>(
        reinterpret_cast<void*>(GetProcAddress(program, "librariesAllocator")));
    return shared != nullptr ? *shared() : g_libraries;
}

ProofAllocatorControl& control() {
    ProofAllocatorControl* mine = g_mine.load(std::memory_order_acquire);
    if (mine == nullptr)
        g_mine.store(mine = &findMine(), std::memory_order_release);
    return *mine;
}

bool isToFail(ProofAllocatorControl& mine) {
    ++mine.allocations;
    bool fails = mine.isEmpty;
    for (int64_t left = mine.countdown; left > 0 && !fails;)
        if (mine.countdown.compare_exchange_weak(left, left - 1)) {
            if (left > 1)
                break;
            fails = true;
            mine.isEmpty = mine.staysEmpty.load();
        }
    mine.failures += fails;
    return fails;
}

#ifdef CLIPFORGE_HARDENED

// A block ends where an inaccessible page begins, or at most seven bytes before, which then hold a pattern
// that is looked at when the block is deleted. In front of its pages lies one that tells what it is. A
// deleted block stays inaccessible until many more have been.

constexpr size_t page = 4096;
constexpr uint8_t pattern = 0xA7;
constexpr uint64_t mark = 0x6B636F6C42676F72;

struct BlockHeader {
    uint64_t mark;
    size_t bytes;
    size_t slack; ///< between the block's end and its pages' end
};

constexpr size_t quarantineSize = 1024;
constinit std::atomic<void*> g_quarantine[quarantineSize]{};
constinit std::atomic<size_t> g_quarantineNext{0};
constinit std::atomic<bool> g_quarantineClosed{false};

/// A library that goes must not leave its deleted blocks' addresses behind.
struct QuarantineEnd {
    ~QuarantineEnd() {
        g_quarantineClosed = true;
        for (auto& place : g_quarantine)
            if (void* const block = place.exchange(nullptr))
                VirtualFree(block, 0, MEM_RELEASE);
    }
} g_quarantineEnd;

void* takeBlock(size_t bytes, size_t alignment) {
    if (bytes > SIZE_MAX / 2)
        return nullptr;
    // Only text and bytes come in sizes that are no multiple of 8, and need no alignment.
    const size_t step = alignment > 16 ? alignment : bytes % 8 == 0 ? 16 : 1;
    const size_t padded = (bytes + step - 1) / step * step;
    const size_t pages = std::max(page, (padded + page - 1) / page * page);
    auto* const base =
        static_cast<uint8_t*>(VirtualAlloc(nullptr, page + pages + page, MEM_RESERVE, PAGE_READWRITE));
    if (base == nullptr)
        return nullptr;
    if (VirtualAlloc(base, page + pages, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
        VirtualFree(base, 0, MEM_RELEASE);
        return nullptr;
    }
    uint8_t* const block = base + page + pages - padded;
    std::memset(block, pattern, padded);
    *reinterpret_cast<BlockHeader*>(base) = {mark, bytes, padded - bytes};
    return block;
}

void giveBlock(void* block) {
    auto* const base = reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(block) / page * page - page);
    const BlockHeader header = *reinterpret_cast<const BlockHeader*>(base); // faults when deleted before
    if (header.mark != mark)
        __builtin_trap();
    const uint8_t* const end = static_cast<const uint8_t*>(block) + header.bytes;
    for (size_t i = 0; i < header.slack; ++i)
        if (end[i] != pattern)
            __builtin_trap();
    VirtualFree(base, static_cast<size_t>(end + header.slack - base), MEM_DECOMMIT);
    void* oldest = base;
    if (!g_quarantineClosed)
        oldest = g_quarantine[g_quarantineNext++ % quarantineSize].exchange(base);
    if (oldest != nullptr)
        VirtualFree(oldest, 0, MEM_RELEASE);
}

#else

/// Every block is taken by its alignment, so that every form of delete can give it back.
void* takeBlock(size_t bytes, size_t alignment) {
    return _aligned_malloc(std::max<size_t>(bytes, 1), alignment);
}

void giveBlock(void* block) {
    _aligned_free(block);
}

#endif

void* allocate(size_t bytes, size_t alignment) {
    ProofAllocatorControl& mine = control();
    void* const block = isToFail(mine) ? nullptr : takeBlock(bytes, alignment);
    if (block == nullptr)
        throw std::bad_alloc();
    ++mine.liveBlocks;
    return block;
}

void release(void* block) noexcept {
    if (block == nullptr)
        return;
    --control().liveBlocks;
    giveBlock(block);
}

} // namespace

ProofAllocatorControl& programAllocator() {
    return g_program;
}

ProofAllocatorControl* librariesAllocator() {
    return &g_libraries;
}

// The standard library's other forms, for arrays, without exceptions and with sizes, all lead here.
void* operator new(size_t bytes) {
    return allocate(bytes, __STDCPP_DEFAULT_NEW_ALIGNMENT__);
}
void* operator new(size_t bytes, std::align_val_t alignment) {
    return allocate(bytes, static_cast<size_t>(alignment));
}
void operator delete(void* block) noexcept {
    release(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    release(block);
}
