#include "BlackmagicRawAPIDispatch.h"

#include <utility>

#include "Utils/vdLogging.h"
#include "Utils/vdModule.h"
#include "Utils/vdText.h"

namespace {

/// A library that the decoder library pulls into the process and leaves there.
struct HelperLibrary {
    const wchar_t* name;
    const char* releasing;
    bool isOurs; ///< to be freed by us: it was not there when the decoder library was loaded
};
HelperLibrary g_helpers[] = {{L"InstructionSetServicesAVX", "Releasing AVX Lib", false},
                             {L"InstructionSetServicesAVX2", "Releasing AVX2 Lib", false}};

HMODULE g_library = nullptr;
CreateBlackmagicRawFactoryInstanceFunction g_createFactory = nullptr;
uint32_t g_users = 0;
bool g_isFirstAttempt = true;

void logHost() {
    if (!vdLogs(vdLogLevel::info))
        return;
    wchar_t host[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, host, MAX_PATH);
    VD_LOG_AS(vdLogLevel::info, "TryLoadBlackmagicRawAPI",
              "Module Filename : " << utf16ToUtf8({host, wcsnlen(host, MAX_PATH)}));
}

/// Judged at each load: the host may have come to use them in between. With the first it has brought both.
void judgeHelpers() {
    bool isOurs = true;
    for (HelperLibrary& helper : g_helpers)
        isOurs = helper.isOurs = isOurs && GetModuleHandleW(helper.name) == nullptr;
    VD_LOG_AS(vdLogLevel::info, "TryLoadBlackmagicRawAPI",
              "Should release Other Dlls : " << g_helpers[0].isOurs);
}

void releaseHelpers() {
    for (const HelperLibrary& helper : g_helpers)
        if (HMODULE module = helper.isOurs ? GetModuleHandleW(helper.name) : nullptr) {
            VD_LOG_AS(vdLogLevel::info, "ReleaseBlackmagicRawAPI", helper.releasing);
            FreeLibrary(module);
        }
}

/// Somebody else's hold on the library keeps it, and what it needs, in the process.
bool isLoaded(CreateBlackmagicRawFactoryInstanceFunction entry) {
    HMODULE module = nullptr;
    return GetModuleHandleExW(
               GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
               reinterpret_cast<const wchar_t*>(reinterpret_cast<void*>(entry)), &module) != FALSE;
}

} // namespace

void TryLoadBlackmagicRawAPI(const std::wstring& folder) {
    if (std::exchange(g_isFirstAttempt, false))
        logHost();
    judgeHelpers();
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

bool HoldBlackmagicRawAPI() noexcept {
    if (!g_library)
        return false;
    ++g_users;
    return true;
}

void ReleaseBlackmagicRawAPI() noexcept {
    if (!g_library) {
        VD_LOG_INFO("No need to release BMD Lib, it is null");
        return;
    }
    if (g_users > 0 && --g_users > 0)
        return;
    const auto entry = std::exchange(g_createFactory, nullptr);
    FreeLibrary(std::exchange(g_library, nullptr));
    if (!isLoaded(entry))
        releaseHelpers();
}
