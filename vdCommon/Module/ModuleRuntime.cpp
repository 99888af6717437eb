// What a library of ours takes from the process by being loaded, it gives back when it is unloaded.
//
// The C++ runtime is linked into each library, and a host may load and unload it thousands of times. As it
// comes, the runtime leaves behind each time a thread-local slot, of which a process has about a thousand,
// two handles for each thread that came by, and a pool of some 70 KiB. The linker's --wrap has it use the
// functions here instead.

// The names below are the toolchain's own, and what its linker makes of them.
// NOLINTBEGIN(bugprone-reserved-identifier)
#include <cerrno>

#include <pthread.h>
#include <windows.h>

namespace __gnu_cxx {
void __freeres(); // the runtime's own way to give its pool back
}

namespace {

/// As many keys as the runtime makes, and some more.
constexpr LONG maximumKeys = 16;
DWORD g_keys[maximumKeys];
volatile LONG g_keyCount = 0;

/// Made before every other static object of the library, so that it goes after them all.
struct ModuleRuntime {
    ~ModuleRuntime() {
        for (LONG i = 0; i < g_keyCount && i < maximumKeys; ++i)
            FlsFree(g_keys[i]); // has every thread's value destroyed, too
        __gnu_cxx::__freeres();
    }
};
__attribute__((init_priority(101))) ModuleRuntime g_moduleRuntime;

enum : LONG { onceDone = 1, onceRunning = 0x100 };

struct Guard {
    volatile LONG state;
    LONG unused;
};

} // namespace

extern "C" {

/// Fiber-local storage, unlike thread-local, destroys all threads' values when a key is freed.
int __wrap_pthread_key_create(pthread_key_t* key, void (*destroy)(void*)) {
    const DWORD slot = FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(destroy));
    if (slot == FLS_OUT_OF_INDEXES)
        return EAGAIN;
    const LONG index = InterlockedIncrement(&g_keyCount) - 1;
    if (index >= maximumKeys) { // one that nobody would free must not outlive its destroyer's code
        FlsFree(slot);
        return EAGAIN;
    }
    g_keys[index] = slot;
    *key = slot;
    return 0;
}

/// The runtime gives no key up before the library goes.
int __wrap_pthread_key_delete(pthread_key_t) {
    return 0;
}

void* __wrap_pthread_getspecific(pthread_key_t key) {
    const DWORD error = GetLastError(); // which the call sets, and a caller may be about to read
    void* const value = FlsGetValue(key);
    SetLastError(error);
    return value;
}

int __wrap_pthread_setspecific(pthread_key_t key, const void* value) {
    return FlsSetValue(key, const_cast<void*>(value)) ? 0 : EINVAL;
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
