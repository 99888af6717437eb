#include "BlackmagicRawAPIDispatch.h"

#include <utility>

#include "Utils/vdLogging.h"
#include "Utils/vdModule.h"
#include "Utils/vdText.h"

namespace {

/// Libraries that the decoder library pulls into the process and leaves there.
constexpr wchar_t avxHelper[] = L"InstructionSetServicesAVX";
constexpr wchar_t avx2Helper[] = L"InstructionSetServicesAVX2";

HMODULE g_library = nullptr;
CreateBlackmagicRawFactoryInstanceFunction g_createFactory = nullptr;

/// Whether the helper libraries are ours to free: they are unless the host had them before our first load.
bool g_releaseHelpers = false;
bool g_isFirstAttempt = true;

void decideOnHelpers() {
    wchar_t host[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, host, MAX_PATH);
    VD_LOG_AS(vdLogLevel::info, "TryLoadBlackmagicRawAPI",
              "Module Filename : " << utf16ToUtf8({host, wcsnlen(host, MAX_PATH)}));
    g_releaseHelpers = GetModuleHandleW(avxHelper) == nullptr;
    VD_LOG_AS(vdLogLevel::info, "TryLoadBlackmagicRawAPI",
              "Should release Other Dlls : " << g_releaseHelpers);
}

void releaseHelper(const wchar_t* name, const char* logLine) {
    if (HMODULE helper = GetModuleHandleW(name)) {
        VD_LOG_AS(vdLogLevel::info, "ReleaseBlackmagicRawAPI", logLine);
        FreeLibrary(helper);
    }
}

} // namespace

void TryLoadBlackmagicRawAPI(const std::wstring& folder) {
    if (std::exchange(g_isFirstAttempt, false))
        decideOnHelpers();
    g_library = loadLibraryIsolated(folder + BlackmagicRawAPIFileName);
    if (!g_library) {
        VD_LOG_INFO("Manualyy Loaded DLL Failed !");
        return;
    }
    VD_LOG_INFO("Manualyy Loaded DLL success !");
    const FARPROC entry = GetProcAddress(g_library, "CreateBlackmagicRawFactoryInstance");
    g_createFactory =
        reinterpret_cast<CreateBlackmagicRawFactoryInstanceFunction>(reinterpret_cast<void*>(entry));
    if (!g_createFactory)
        FreeLibrary(std::exchange(g_library, nullptr));
}

bool IsBlackmagicRawAPILoaded() noexcept {
    return g_createFactory != nullptr;
}

IBlackmagicRawFactory* CreateBlackmagicRawFactory() noexcept {
    return g_createFactory ? g_createFactory() : nullptr;
}

void ReleaseBlackmagicRawAPI() noexcept {
    if (!g_library) {
        VD_LOG_INFO("No need to release BMD Lib, it is null");
        return;
    }
    g_createFactory = nullptr;
    FreeLibrary(std::exchange(g_library, nullptr));
    if (g_releaseHelpers) {
        releaseHelper(avxHelper, "Releasing AVX Lib");
        releaseHelper(avx2Helper, "Releasing AVX2 Lib");
    }
}
