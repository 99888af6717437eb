#include "CudaRuntime.h"

#include <array>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <span>
#include <utility>

#include <windows.h>

// The hook is set once, by its definition below; where the toolchain's header would have it constant, this
// asks for the writable declaration, which older ones have anyway.
#define DELAYIMP_INSECURE_WRITABLE_HOOKS
#include <delayimp.h>

#include "StructuredGuard.h"
#include "Utils/vdLogging.h"
#include "Utils/vdModule.h"
#include "Utils/vdPaths.h"
#include "Utils/vdText.h"

// The names below are the toolchain's own.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
// The runtime's functions, as the import definition names them.
int cudaMemGetInfo(std::size_t* freeBytes, std::size_t* totalBytes);
int cudaMemcpy(void* destination, const void* source, std::size_t size, int kind);
extern FARPROC __imp_cudaMemGetInfo;
extern FARPROC __imp_cudaMemcpy;

// What the delay-load import library and the toolchain's helper bring along.
extern const ImgDelayDescr __DELAY_IMPORT_DESCRIPTOR_libcudart64_110_a;
FARPROC WINAPI __delayLoadHelper2(PCImgDelayDescr descriptor, FARPROC* slot);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {
constexpr int longestRuntimePath = 261;

const ImgDelayDescr& descriptor = __DELAY_IMPORT_DESCRIPTOR_libcudart64_110_a;

template <class T>
T* inImage(RVA address) {
    return reinterpret_cast<T*>(reinterpret_cast<char*>(ownModule()) + address);
}

/// The runtime beside this library. Null, for anything else or when it is not there, makes the helper load by
/// name in its usual way.
HMODULE getCudaURL(const DelayLoadInfo& info) noexcept {
    if (std::strcmp(info.szDll, cudaRuntimeFile) != 0)
        return nullptr;
    try {
        const std::string module = utf16ToUtf8(ownModulePath());
        if (module.empty())
            return nullptr;
        const std::string path = cudaRuntimePath(module);
        return path.empty() ? nullptr : loadLibraryIsolated(utf8ToUtf16(path));
    } catch (...) {
        return nullptr;
    }
}

FARPROC WINAPI onDelayLoad(unsigned notification, PDelayLoadInfo info) {
    if (notification != dliNotePreLoadLibrary)
        return nullptr;
    return reinterpret_cast<FARPROC>(getCudaURL(*info));
}

/// Many readers or one writer. The standard library's own brings the toolchain's thread emulation along,
/// which enters an exception handler for the whole process.
class ReaderWriterLock {
public:
    void lock() noexcept { AcquireSRWLockExclusive(&m_lock); }
    void unlock() noexcept { ReleaseSRWLockExclusive(&m_lock); }
    void lock_shared() noexcept { AcquireSRWLockShared(&m_lock); }
    void unlock_shared() noexcept { ReleaseSRWLockShared(&m_lock); }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
};

/// Makes a few bytes of our own image writable for a scope. Some linkers lay what the delay-load helper
/// writes into memory for reading only. Memory that is writable already stays untouched.
class WritableImage {
public:
    template <class T>
    explicit WritableImage(std::span<T> bytes) noexcept : m_start(bytes.data()), m_size(bytes.size_bytes()) {
        MEMORY_BASIC_INFORMATION memory = {};
        constexpr DWORD writable =
            PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
        if (VirtualQuery(m_start, &memory, sizeof memory) != 0 && (memory.Protect & writable) == 0)
            VirtualProtect(m_start, m_size, PAGE_READWRITE, &m_former);
    }
    ~WritableImage() {
        DWORD ours = 0;
        if (m_former != 0)
            VirtualProtect(m_start, m_size, m_former, &ours);
    }
    WritableImage(const WritableImage&) = delete;
    WritableImage& operator=(const WritableImage&) = delete;

private:
    void* m_start;
    std::size_t m_size;
    DWORD m_former = 0; ///< 0 when there is nothing to restore
};

/// The runtime's import slots. Each leads to a thunk of the linker's until the helper puts the function
/// there; we remember the thunks, to tell which slots are bound and to start over after a failure. Calls hold
/// `lock` shared, binding holds it alone.
class Imports {
public:
    enum class Outcome { bound, failed, exception };

    Outcome bind(FARPROC* slot) noexcept {
        Bind bind{slot, nullptr};
        const WritableImage writableSlots(std::span(firstSlot(), slotCount));
        const WritableImage writableHandle(std::span(inImage<HMODULE>(descriptor.rvaHmod), 1));
        // The helper raises a structured exception for a missing library or function.
        const bool completed = runGuarded(
            [](void* argument) {
                auto& work = *static_cast<Bind*>(argument);
                work.bound = __delayLoadHelper2(&descriptor, work.slot);
            },
            &bind);
        if (completed && bind.bound != nullptr)
            return Outcome::bound;
        startOver();
        return completed ? Outcome::failed : Outcome::exception;
    }

    /// What the helper's own operation of this name does. That one looks its libraries up in the image's
    /// directory of delay imports, where this toolchain's linker enters none, and so knows no library at all.
    Outcome loadAllImportsForDll(const char* fileName) noexcept {
        if (std::strcmp(fileName, inImage<const char>(descriptor.rvaDLLName)) != 0)
            return Outcome::failed;
        for (FARPROC* slot = firstSlot(); *slot != nullptr; ++slot)
            if (!isBound(slot))
                if (const Outcome outcome = bind(slot); outcome != Outcome::bound)
                    return outcome;
        return Outcome::bound;
    }

    bool isBound(const FARPROC* slot) const noexcept { return *slot != m_thunks[indexOf(slot)]; }

    ReaderWriterLock lock;

private:
    static constexpr std::size_t slotCount = 2;

    struct Bind {
        FARPROC* slot;
        FARPROC bound;
    };

    static FARPROC* firstSlot() { return inImage<FARPROC>(descriptor.rvaIAT); }
    static std::size_t indexOf(const FARPROC* slot) { return static_cast<std::size_t>(slot - firstSlot()); }

    /// Forgets a runtime that turned out to be broken, so that the next attempt searches again. The slots are
    /// writable.
    void startOver() noexcept {
        for (FARPROC* slot = firstSlot(); *slot != nullptr; ++slot)
            *slot = m_thunks[indexOf(slot)];
        HMODULE& module = *inImage<HMODULE>(descriptor.rvaHmod);
        if (module != nullptr)
            FreeLibrary(std::exchange(module, nullptr));
    }

    static std::array<FARPROC, slotCount> readThunks() {
        std::array<FARPROC, slotCount> thunks = {};
        for (std::size_t i = 0; i < thunks.size(); ++i)
            thunks[i] = firstSlot()[i];
        return thunks;
    }

    const std::array<FARPROC, slotCount> m_thunks = readThunks();
};

Imports& imports() {
    static Imports instance;
    return instance;
}

/// Calls a function of the runtime, binding it first where that has not been done.
template <class Call>
int callRuntime(FARPROC* slot, Call&& call) noexcept {
    try {
        {
            const std::shared_lock shared(imports().lock);
            if (imports().isBound(slot))
                return call();
        }
        // Called under the same lock: another thread's failure may unbind everything in between.
        const std::lock_guard alone(imports().lock);
        if (!imports().isBound(slot) && imports().bind(slot) != Imports::Outcome::bound)
            return cudaRuntimeNotLoaded;
        return call();
    } catch (...) {
        return cudaRuntimeNotLoaded;
    }
}
} // namespace

PfnDliHook __pfnDliNotifyHook2 = onDelayLoad;

std::string cudaRuntimePath(std::string_view moduleFile) {
    const std::string file = stripTrailingSeparators(toForwardSlashes(moduleFile));
    const std::size_t separator = file.rfind('/');
    const std::string folder = separator == std::string::npos ? std::string() : file.substr(0, separator);
    std::string path = toBackslashes(joinPath(folder, cudaRuntimeFile));
    if (charCount(path) > longestRuntimePath) {
        VD_LOG_AS(vdLogLevel::error, "getCudaURL",
                  "ERROR getCudaURL - Folder Path + dllFilename superior to MAX PATH !");
        return {};
    }
    return path;
}

bool loadDelayedLibrary(const char* fileName, std::string& message) noexcept {
    try {
        message.clear();
        const std::lock_guard alone(imports().lock);
        const Imports::Outcome outcome = imports().loadAllImportsForDll(fileName);
        if (outcome == Imports::Outcome::bound)
            return true;
        message = std::string(fileName) + " __HrLoadAllImportsForDll " +
                  (outcome == Imports::Outcome::failed ? "failed" : "exception");
    } catch (...) {
        // Without memory the message is lost, not the answer.
    }
    return false;
}

bool loadCudaRuntime(std::string& message) noexcept {
    return loadDelayedLibrary(cudaRuntimeFile, message);
}

int cudaDeviceMemory(std::size_t& freeBytes, std::size_t& totalBytes) noexcept {
    freeBytes = totalBytes = 0;
    const int error =
        callRuntime(&__imp_cudaMemGetInfo, [&] { return cudaMemGetInfo(&freeBytes, &totalBytes); });
    if (error != 0)
        freeBytes = totalBytes = 0;
    return error;
}

int cudaCopy(void* destination, const void* source, std::size_t size, cudaCopyKind kind) noexcept {
    return callRuntime(&__imp_cudaMemcpy,
                       [&] { return cudaMemcpy(destination, source, size, static_cast<int>(kind)); });
}
