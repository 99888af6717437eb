#include "Utils/vdModule.h"

#include "Utils/vdErrorMode.h"

extern "C" const char __ImageBase; // NOLINT(bugprone-reserved-identifier): the linker's name for it

namespace {
/// The activation context of this module's manifest, active on this thread for the object's lifetime. Without
/// such a manifest it does nothing.
class OwnActivationContext {
public:
    OwnActivationContext() noexcept {
        constexpr ULONG_PTR isolationAwareManifest = 2; // ISOLATIONAWARE_MANIFEST_RESOURCE_ID
        ACTCTXW description = {};
        description.cbSize = sizeof description;
        description.dwFlags = ACTCTX_FLAG_RESOURCE_NAME_VALID | ACTCTX_FLAG_HMODULE_VALID;
        description.lpResourceName = MAKEINTRESOURCEW(isolationAwareManifest);
        description.hModule = ownModule();
        m_context = CreateActCtxW(&description);
        m_active = m_context != INVALID_HANDLE_VALUE && ActivateActCtx(m_context, &m_cookie);
    }
    ~OwnActivationContext() {
        if (m_active)
            DeactivateActCtx(0, m_cookie);
        if (m_context != INVALID_HANDLE_VALUE)
            ReleaseActCtx(m_context);
    }
    OwnActivationContext(const OwnActivationContext&) = delete;
    OwnActivationContext& operator=(const OwnActivationContext&) = delete;

private:
    HANDLE m_context = INVALID_HANDLE_VALUE;
    ULONG_PTR m_cookie = 0;
    bool m_active = false;
};
} // namespace

namespace {
/// Its dependencies are looked for beside it and in the system, never in the current folder, which may be the
/// folder of the clips.
HMODULE loadLibraryByItself(const wchar_t* path) noexcept {
    const HMODULE library =
        LoadLibraryExW(path, nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (library != nullptr || GetLastError() != ERROR_INVALID_PARAMETER)
        return library;
    // Windows 7 before its update KB2533623 knows no such flags: there it comes before the current folder.
    return LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}
} // namespace

HMODULE ownModule() noexcept {
    return reinterpret_cast<HMODULE>(const_cast<char*>(&__ImageBase));
}

std::wstring ownModulePath() {
    constexpr std::size_t longest = 32768;
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(ownModule(), path.data(), static_cast<DWORD>(path.size()));
        if (length < path.size() || path.size() >= longest) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2); // was cut
    }
}

std::wstring folderOf(const std::wstring& path) {
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

void pinOwnModule() noexcept {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<const wchar_t*>(&pinOwnModule), &module);
}

HMODULE loadLibraryIsolated(const std::wstring& path) noexcept {
    HMODULE library = nullptr;
    DWORD loadError = ERROR_SUCCESS;
    {
        const vdQuietErrors quiet;
        const OwnActivationContext context;
        library = loadLibraryByItself(path.c_str());
        loadError = GetLastError();
    }
    SetLastError(loadError);
    return library;
}
