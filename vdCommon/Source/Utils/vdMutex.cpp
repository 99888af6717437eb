#include "Utils/vdMutex.h"

#include "Utils/vdLogging.h"

vdMutex::vdMutex(std::string name) : m_name(std::move(name)) {
    InitializeCriticalSection(&m_criticalSection);
}

vdMutex::~vdMutex() {
    DeleteCriticalSection(&m_criticalSection);
}

void vdMutex::lock(std::string_view caller) noexcept {
    VD_LOG_TRACE("Mutex " << m_name << " " << caller << " locked");
    EnterCriticalSection(&m_criticalSection);
}

bool vdMutex::try_lock() noexcept {
    return TryEnterCriticalSection(&m_criticalSection) != FALSE;
}

void vdMutex::unlock() noexcept {
    VD_LOG_TRACE("Mutex " << m_name << " unlocked");
    LeaveCriticalSection(&m_criticalSection);
}

void vdLockDetail::logWait(const void* mutex, const char* label, const char* function, const char* file,
                           void (*wait)(void* mutex), void* waitArgument) noexcept {
    const auto address = reinterpret_cast<uintptr_t>(mutex);
    const auto logLine = [&](auto&& message) {
        if (vdLogs(vdLogLevel::info))
            vdLogDetail::compose(vdLogLevel::info, file, function, message);
    };
    logLine([&](std::ostream& stream) {
        stream << " MU" << address << " No try_lock " << label << " Will wait for it !";
    });
    const int64_t before = monotonicNanoseconds();
    wait(waitArgument);
    const int64_t after = monotonicNanoseconds();
    logLine([&](std::ostream& stream) {
        stream << " MU" << address << " " << label << " lock dt " << (after - before) / 1000 << " us";
    });
}

uint64_t vdStopwatch::lap() noexcept {
    const int64_t now = monotonicNanoseconds();
    const int64_t elapsed = now - std::exchange(m_last, now);
    return m_paused ? 0 : static_cast<uint64_t>(elapsed);
}
