#include "BRThumbnailProvider.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include <io.h>

#include "ClassFactory.h"
#include "Session.h"
#include "ThumbnailProgress.h"
#include "Utils/vdCloudFile.h"
#include "Utils/vdErrorMode.h"
#include "Utils/vdFailureEvent.h"
#include "Utils/vdGuard.h"
#include "Utils/vdLogging.h"
#include "Utils/vdPaths.h"
#include "Utils/vdText.h"
#include "brThumbnailGenerator.h"

namespace {
constexpr char createInstanceName[] = "CRecipeThumbProvider_CreateInstance";
constexpr char initializeName[] = "Initialize";

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
    if (isSparedCloudFile(utf8ToUtf16(path).c_str())) {
        VD_LOG_AS(vdLogLevel::info, initializeName, "  - Test wfopen : left out, it would fetch the clip");
        return;
    }
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

HRESULT runCore(const std::string& path, UINT size, HBITMAP& bitmap, WTS_ALPHATYPE& alpha,
                ThumbnailProgress& reached) {
    const ProcessWideLock lock;
    if (!lock)
        return E_FAIL;
    const CoreRelease release;
    HRESULT hr = guardBoundary([] { return initBMIfNeeded(); });
    if (hr == S_OK) {
        hr = guardBoundary([&] { return generateThumbnailImageBuffer(path, size, bitmap); });
        alpha = WTSAT_ARGB;
    }
    reached = g_progress;
    return hr;
}

HRESULT makeThumbnail(const std::string& path, UINT size, HBITMAP& bitmap, WTS_ALPHATYPE& alpha) {
    const std::wstring widePath = utf8ToUtf16(path);
    if (isSparedCloudFile(widePath.c_str()))
        return E_FAIL;
    ThumbnailProgress reached;
    const HRESULT hr = runCore(path, size, bitmap, alpha, reached);
    if (FAILED(hr))
        reportFailure({widePath.c_str(), reached.stage, hr, reached.requestError});
    return hr;
}
} // namespace

HRESULT createProvider(REFIID riid, void** ppv) {
    startSession();
    const HRESULT hr = handOut(new (std::nothrow) CClipforgeThumbProvider, riid, ppv);
    VD_LOG_AS(vdLogLevel::info, createInstanceName, "  - Returning " << hr);
    return hr;
}

IFACEMETHODIMP_(ULONG) CClipforgeThumbProvider::AddRef() {
    const ULONG count = ThumbnailObject::AddRef();
    VD_LOG_INFO("CClipforgeThumbProvider AddRef !");
    return count;
}

void CClipforgeThumbProvider::onLastRelease() noexcept {
    VD_LOG_AS(vdLogLevel::info, "Release", "Cref == 0 => Deleting CClipforgeThumbProvider");
}

CClipforgeThumbProvider::~CClipforgeThumbProvider() {
    VD_LOG_INFO("CClipforgeThumbProvider Released !");
}

IFACEMETHODIMP CClipforgeThumbProvider::Initialize(LPCWSTR pszFilePath, DWORD) {
    const vdQuietErrors quiet;
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
    const vdQuietErrors quiet; // for the decoder as well, where it works on this thread
    VD_LOG_INFO("Getting Thumbnail with size " << cx);
    HRESULT hr = E_POINTER;
    if (phbmp != nullptr && pdwAlpha != nullptr)
        hr = guardBoundary([&] {
            const std::string path = m_filepath; // what is served meanwhile may give the object another one
            return makeThumbnail(path, cx, *phbmp, *pdwAlpha);
        });
    VD_LOG_INFO("End of getting Thumbnail - Returning " << hr);
    return hr;
}
