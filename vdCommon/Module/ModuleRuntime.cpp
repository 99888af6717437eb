// What the C++ runtime needs in a library that is a guest in its host's process: nothing that may be missing
// later, and nothing that stays behind.
//
// The runtime is linked into each library, and a host may load and unload it thousands of times. As the
// toolchain has it, a lock is allocated when it is first taken, and each thread's record of its exceptions
// when it first throws: a throw that memory has run out for takes the process down. And each unloading leaves
// behind a thread-local slot, of which a process has about a thousand, two handles for each thread that came
// by, and a pool of some 70 KiB. The linker's --wrap has it use the functions here instead. All they need
// lies in the library's own data from load on, and goes with it.

// The names below are the toolchain's own, and what its linker makes of them.
// NOLINTBEGIN(bugprone-reserved-identifier)
#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <exception>
#include <iterator>

#include <pthread.h>
#include <windows.h>

namespace {

/// What the runtime knows of a thread's exceptions, as the C++ ABI lays it out.
struct ThreadExceptions {
    void* caught;
    unsigned int uncaught;
    bool isIdle() const { return caught == nullptr && uncaught == 0; }
};

/// A record belongs to a thread from its throw to the end of its outermost handler. Threads beyond these
/// wait.
struct ThreadRecord {
    std::atomic<DWORD> thread; ///< 0: free
    ThreadExceptions exceptions;
};
constinit ThreadRecord g_records[128] = {};

/// One that reads as nothing thrown and nothing caught.
constinit ThreadExceptions g_noExceptions = {};

ThreadRecord* findRecord() {
    const DWORD self = GetCurrentThreadId();
    for (ThreadRecord& record : g_records)
        if (record.thread.load(std::memory_order_relaxed) == self)
            return &record;
    return nullptr;
}

ThreadRecord& takeRecord() {
    if (ThreadRecord* const mine = findRecord())
        return *mine;
    for (;; Sleep(1))
        for (ThreadRecord& record : g_records)
            if (DWORD none = 0; record.thread.compare_exchange_strong(none, GetCurrentThreadId()))
                return record;
}

/// Where exceptions stand when there is no memory for them; one bit of g_taken for each.
constexpr std::size_t reserveBytes = 512;
alignas(16) constinit std::byte g_reserve[64][reserveBytes] = {};
constinit std::atomic<uint64_t> g_taken = 0;

void* takeFromReserve(std::size_t bytes) {
    if (bytes > reserveBytes)
        return nullptr;
    for (uint64_t taken = g_taken; taken != UINT64_MAX;) {
        const int place = std::countr_one(taken);
        if (g_taken.compare_exchange_weak(taken, taken | uint64_t{1} << place))
            return g_reserve[place];
    }
    return nullptr;
}

/// False when the block is none of the reserve's.
bool giveToReserve(const void* block) {
    const auto offset = reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(g_reserve);
    if (offset >= sizeof g_reserve)
        return false;
    g_taken &= ~(uint64_t{1} << offset / reserveBytes);
    return true;
}

/// How much the runtime keeps in front of a thrown object. It tells by where it puts that.
std::size_t headerBytes() {
    alignas(16) std::byte space[1024];
    std::byte* const object = space + sizeof space;
    const void* const header = abi::__cxa_init_primary_exception(object, nullptr, nullptr);
    return static_cast<std::size_t>(object - static_cast<const std::byte*>(header));
}

/// The system's small lock in the place of a mutex: both are one pointer wide, and differ in how a free one
/// looks. Null for a recursive one, which that lock cannot be.
SRWLOCK* lockIn(pthread_mutex_t* mutex) {
    static_assert(sizeof(pthread_mutex_t) == sizeof(SRWLOCK));
    auto* const place = reinterpret_cast<PVOID volatile*>(mutex);
    InterlockedCompareExchangePointer(place, nullptr, reinterpret_cast<void*>(PTHREAD_MUTEX_INITIALIZER));
    const bool isOther =
        *mutex == PTHREAD_RECURSIVE_MUTEX_INITIALIZER || *mutex == PTHREAD_ERRORCHECK_MUTEX_INITIALIZER;
    return isOther ? nullptr : reinterpret_cast<SRWLOCK*>(mutex);
}

enum : LONG { onceDone = 1, onceRunning = 0x100 };

struct Guard {
    volatile LONG state;
    LONG unused;
};

} // namespace

extern "C" {

// Exceptions.

void* __wrap___cxa_allocate_exception(std::size_t thrownBytes) noexcept {
    const std::size_t header = headerBytes();
    const std::size_t bytes = header + thrownBytes;
    void* block = std::malloc(bytes);
    if (block == nullptr)
        block = takeFromReserve(bytes);
    if (block == nullptr)
        std::terminate();
    std::memset(block, 0, header);
    return static_cast<std::byte*>(block) + header;
}

void __wrap___cxa_free_exception(void* thrown) noexcept {
    void* const block = static_cast<std::byte*>(thrown) - headerBytes();
    if (!giveToReserve(block))
        std::free(block);
}

ThreadExceptions* __wrap___cxa_get_globals() noexcept {
    return &takeRecord().exceptions;
}

ThreadExceptions* __wrap___cxa_get_globals_fast() noexcept {
    ThreadRecord* const mine = findRecord();
    return mine != nullptr ? &mine->exceptions : &g_noExceptions;
}

void __real___cxa_end_catch();
void __wrap___cxa_end_catch() {
    __real___cxa_end_catch();
    if (ThreadRecord* const mine = findRecord(); mine != nullptr && mine->exceptions.isIdle())
        mine->thread = 0;
}

// std::uncaught_exceptions and its elder: streams ask at every turn, and need no record for that.
int __wrap__ZSt19uncaught_exceptionsv() noexcept {
    return static_cast<int>(__wrap___cxa_get_globals_fast()->uncaught);
}
bool __wrap__ZSt18uncaught_exceptionv() noexcept {
    return __wrap___cxa_get_globals_fast()->uncaught != 0;
}

// Locks. The runtime has no condition variables of its own; Windows' go with SRWLOCK, not with these.

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t*) {
    *mutex = 0;
    return 0;
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t*) {
    return 0;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    SRWLOCK* const lock = lockIn(mutex);
    if (lock == nullptr)
        return EINVAL;
    AcquireSRWLockExclusive(lock);
    return 0;
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    SRWLOCK* const lock = lockIn(mutex);
    if (lock == nullptr)
        return EINVAL;
    return TryAcquireSRWLockExclusive(lock) ? 0 : EBUSY;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    SRWLOCK* const lock = lockIn(mutex);
    if (lock == nullptr)
        return EINVAL;
    ReleaseSRWLockExclusive(lock);
    return 0;
}

int __wrap_pthread_once(pthread_once_t* once, void (*work)()) {
    static_assert(sizeof(pthread_once_t) == sizeof(LONG) && PTHREAD_ONCE_INIT == 0);
    auto* const state = reinterpret_cast<volatile LONG*>(once);
    while (*state != onceDone) {
        if (InterlockedCompareExchange(state, onceRunning, PTHREAD_ONCE_INIT) == PTHREAD_ONCE_INIT) {
            work();
            InterlockedExchange(state, onceDone);
        } else
            Sleep(0);
    }
    return 0;
}

// The guards of static objects within functions. The compiler looks at the first byte of one itself, which is
// 1 once the object stands.

int __wrap___cxa_guard_acquire(Guard* guard) {
    for (;;) {
        if (guard->state == onceDone)
            return 0;
        if (InterlockedCompareExchange(&guard->state, onceRunning, 0) == 0)
            return 1;
        Sleep(0);
    }
}

void __wrap___cxa_guard_release(Guard* guard) {
    InterlockedExchange(&guard->state, onceDone);
}

void __wrap___cxa_guard_abort(Guard* guard) {
    InterlockedExchange(&guard->state, 0);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
