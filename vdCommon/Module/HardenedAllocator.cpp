// The hardened build's allocator, in the place of operator new in every module: it guards every block.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include <windows.h>

namespace {

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

} // namespace

// The standard library's other forms, for arrays, without exceptions and with sizes, all lead here.
void* operator new(size_t bytes, std::align_val_t alignment) {
    // Whoever lets the C runtime's memory run out means this memory, too.
    void* const volatile asked = malloc(1);
    free(asked);
    void* const block = asked ? takeBlock(bytes, static_cast<size_t>(alignment)) : nullptr;
    return block ? block : throw std::bad_alloc();
}
void* operator new(size_t bytes) {
    return operator new (bytes, std::align_val_t{__STDCPP_DEFAULT_NEW_ALIGNMENT__});
}
void operator delete(void* block) noexcept {
    if (block != nullptr)
        giveBlock(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    operator delete(block);
}
