#include "BRThumbnailProvider.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include <io.h>
#include <shlwapi.h>

#include "ClassFactory.h"
#include "Registration.h"
#include "Utils/vdGuard.h"
#include "Utils/vdLogging.h"
#include "Utils/vdPaths.h"
#include "Utils/vdProduct.h"
#include "Utils/vdSettings.h"
#include "Utils/vdText.h"
#include "brThumbnailGenerator.h"

// The handler logging switch: off in what users get, on in a build that is to tell its whole road.
#ifndef CLIPFORGE_HANDLER_LOGGING
#define CLIPFORGE_HANDLER_LOGGING 0
#endif

namespace {
constexpr bool handlerLogging = CLIPFORGE_HANDLER_LOGGING != 0;
constexpr char createInstanceName[] = "CRecipeThumbProvider_CreateInstance";
constexpr char initializeName[] = "Initialize";

/// There is one decode manager, one options record and one log in the process, and the shell's apartments all
/// share them. A lock without constructor and destructor works at any moment of the module's life.
SRWLOCK g_processWideState = SRWLOCK_INIT;

class ProcessWideLock {
public:
    ProcessWideLock() noexcept { AcquireSRWLockExclusive(&g_processWideState); }
    ~ProcessWideLock() { ReleaseSRWLockExclusive(&g_processWideState); }
    ProcessWideLock(const ProcessWideLock&) = delete;
    ProcessWideLock& operator=(const ProcessWideLock&) = delete;
};

void startLogging() {
    const ProcessWideLock lock;
    loadOptions();
    // A second start would move the running session's file aside.
    const bool started = g_logThreshold != vdLogLevel::off;
    if (!started && options().loggingLevel != vdLogLevel::off)
        initLogging(vdLogLevel::info, "BRAW_Thumbnail.log", vdHostApp::desktop, productInfo().version);
}

void startSession() {
    static const bool identityFilled = (setProductInfo(), true);
    static_cast<void>(identityFilled);
    if constexpr (handlerLogging)
        startLogging();
}

HRESULT createProvider(REFIID riid, void** ppv) {
    startSession();
    auto* const provider = new (std::nothrow) CClipforgeThumbProvider;
    if (provider == nullptr)
        return E_OUTOFMEMORY;
    const HRESULT hr = provider->QueryInterface(riid, ppv);
    provider->Release();
    VD_LOG_AS(vdLogLevel::info, createInstanceName, "  - Returning " << hr);
    return hr;
}

const char* trueOrFalse(bool value) {
    return value ? "True" : "False";
}

void logPath(std::string_view path) {
    if (!vdLogs(vdLogLevel::info))
        return;
    const std::wstring widePath = utf8ToUtf16(path);
    constexpr int readPermission = 4;
    VD_LOG_AS(vdLogLevel::info, initializeName, "  - called with : " << path);
    VD_LOG_AS(vdLogLevel::info, initializeName, "  - Filepath Test :");
    VD_LOG_AS(vdLogLevel::info, initializeName,
              "  - Filepath with UTF16ToWString call : " << utf16ToUtf8(widePath));
    VD_LOG_AS(vdLogLevel::info, initializeName, "  - Exists : " << trueOrFalse(fileExists(path)));
    VD_LOG_AS(vdLogLevel::info, initializeName,
              "  - Readable : " << trueOrFalse(_waccess_s(widePath.c_str(), readPermission) == 0));
}

/// Tells the log whether the clip can be read at all, which is the first question about a missing thumbnail.
void testOpening(std::string_view path) {
    FILE* const file = openForReading(path);
    const int openError = errno;
    if (file == nullptr) {
        VD_LOG_AS(vdLogLevel::warn, initializeName,
                  "  - Test wfopen : #" << openError << " - " << std::strerror(openError));
        return;
    }
    VD_LOG_AS(vdLogLevel::info, initializeName, "  - Test wfopen : OK");
    if (std::fclose(file) != 0)
        VD_LOG_AS(vdLogLevel::info, initializeName, "  - File wasn't properly closed !");
}

/// Tears the decode core down, whichever way the thumbnail ends.
struct CoreRelease {
    ~CoreRelease() { releaseBMD(); }
};

HRESULT makeThumbnail(const std::string& path, UINT size, HBITMAP& bitmap, WTS_ALPHATYPE& alpha) {
    const ProcessWideLock lock;
    const CoreRelease release;
    HRESULT hr = initBMIfNeeded();
    if (hr == S_OK) {
        hr = guardBoundary([&] { return generateThumbnailImageBuffer(path, size, bitmap); });
        alpha = WTSAT_ARGB;
    }
    return hr;
}
} // namespace

IFACEMETHODIMP CClipforgeThumbProvider::QueryInterface(REFIID riid, void** ppv) {
    if (ppv == nullptr)
        return E_POINTER;
    static const QITAB interfaces[] = {QITABENT(CClipforgeThumbProvider, IInitializeWithFile),
                                       QITABENT(CClipforgeThumbProvider, IThumbnailProvider),
                                       {nullptr, 0}};
    return QISearch(this, interfaces, riid, ppv);
}

IFACEMETHODIMP_(ULONG) CClipforgeThumbProvider::AddRef() {
    const LONG count = InterlockedIncrement(&m_refCount);
    VD_LOG_INFO("CClipforgeThumbProvider AddRef !");
    return static_cast<ULONG>(count);
}

IFACEMETHODIMP_(ULONG) CClipforgeThumbProvider::Release() {
    const LONG count = InterlockedDecrement(&m_refCount);
    if (count == 0) {
        VD_LOG_INFO("Cref == 0 => Deleting CClipforgeThumbProvider");
        delete this;
    }
    return static_cast<ULONG>(count);
}

CClipforgeThumbProvider::~CClipforgeThumbProvider() {
    VD_LOG_INFO("CClipforgeThumbProvider Released !");
}

IFACEMETHODIMP CClipforgeThumbProvider::Initialize(LPCWSTR pszFilePath, DWORD) {
    VD_LOG_INFO("Initialize !");
    HRESULT hr = E_UNEXPECTED;
    if (pszFilePath == nullptr) {
        VD_LOG_ERROR("  - called with NULL filepath ..");
    } else {
        hr = guardBoundary([&] {
            m_filepath = utf16ToUtf8(pszFilePath);
            logPath(m_filepath);
            testOpening(m_filepath);
            return S_OK;
        });
    }
    VD_LOG_INFO("  - Returning " << hr);
    return hr;
}

IFACEMETHODIMP CClipforgeThumbProvider::GetThumbnail(UINT cx, HBITMAP* phbmp, WTS_ALPHATYPE* pdwAlpha) {
    VD_LOG_INFO("Getting Thumbnail with size " << cx);
    HRESULT hr = E_POINTER;
    if (phbmp != nullptr && pdwAlpha != nullptr)
        hr = guardBoundary([&] { return makeThumbnail(m_filepath, cx, *phbmp, *pdwAlpha); });
    VD_LOG_INFO("End of getting Thumbnail - Returning " << hr);
    return hr;
}

// The module's entry points.

namespace {
struct ClassRow {
    const CLSID* classId;
    CreateFunction create;
};
constexpr ClassRow classes[] = {{&CLSID_ClipforgeThumbProvider, createProvider}};
} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        g_moduleHandle = module;
        DisableThreadLibraryCalls(module);
    }
    return TRUE;
}

STDAPI DllCanUnloadNow() {
    return g_moduleLockCount != 0 ? S_FALSE : S_OK;
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    for (const ClassRow& row : classes) {
        if (*row.classId != rclsid)
            continue;
        auto* const factory = new (std::nothrow) CClassFactory(row.create);
        if (factory == nullptr)
            return E_OUTOFMEMORY;
        const HRESULT hr = factory->QueryInterface(riid, ppv);
        factory->Release();
        return hr;
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllRegisterServer() {
    return guardBoundary([] { return registerServer(g_moduleHandle); });
}

STDAPI DllUnregisterServer() {
    return guardBoundary([] { return unregisterServer(); });
}
