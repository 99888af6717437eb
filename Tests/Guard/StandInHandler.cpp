// A handler in the real one's place, whose clips say by their names what becomes of the process.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>

#include <shlwapi.h>

#include "ComServer.h"
#include "HandlerHost.h"
#include "StandIn.h"
#include "ThumbnailObject.h"
#include "Utils/vdModule.h"

namespace {
/// As a library does that hangs while it unloads, on a thread of its own.
void holdLoaderLock() {
    static std::atomic<bool> isHeld = false;
    const auto hold = [](void*) -> DWORD {
        ULONG_PTR cookie = 0;
        exportOf<LONG(WINAPI*)(ULONG, ULONG*, ULONG_PTR*)>(GetModuleHandleW(L"ntdll.dll"),
                                                           "LdrLockLoaderLock")(0, nullptr, &cookie);
        isHeld = true;
        Sleep(INFINITE);
        return 0;
    };
    for (CloseHandle(CreateThread(nullptr, 0, hold, nullptr, 0, nullptr)); !isHeld;)
        Sleep(1);
}

constexpr struct {
    const wchar_t* name;
    void (*deed)();
} deeds[] = {
    {L"abort", [] { std::abort(); }},  {L"terminate", [] { TerminateProcess(GetCurrentProcess(), 0); }},
    {L"exit", [] { ExitProcess(0); }}, {L"hang", [] { Sleep(INFINITE); }},
    {L"slow", [] { Sleep(300); }},
};

WorkerFacts facts() {
    wchar_t folder[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, folder);
    const auto filter = SetUnhandledExceptionFilter(nullptr);
    SetUnhandledExceptionFilter(filter);
    return {GetErrorMode(), filter != nullptr,
            std::filesystem::equivalent(folder, std::filesystem::path(ownModulePath()).parent_path()),
            GetCurrentProcessId()};
}

class StandIn final : public ThumbnailObject {
public:
    ~StandIn() override {
        if (m_name.starts_with(L"stuck"))
            holdLoaderLock();
    }
    IFACEMETHODIMP Initialize(LPCWSTR path, DWORD) override {
        m_name = PathFindFileNameW(path);
        return S_OK;
    }
    IFACEMETHODIMP GetThumbnail(UINT size, HBITMAP* bitmap, WTS_ALPHATYPE* alpha) override {
        for (const auto& [name, deed] : deeds)
            if (m_name.starts_with(name))
                deed();
        if (m_name.starts_with(L"refused"))
            return static_cast<HRESULT>(0x80041234);
        *alpha = WTSAT_RGB;
        BITMAPINFO info = {{sizeof info.bmiHeader, static_cast<LONG>(size), static_cast<LONG>(size / 2), 1,
                            32, BI_RGB, 0, 0, 0, 0, 0},
                           {}};
        void* bits = nullptr;
        *bitmap = CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
        if (*bitmap == nullptr)
            return E_OUTOFMEMORY;
        for (uint32_t i = 0; size <= standInFilled && i < size * (size / 2) * 4; ++i)
            static_cast<uint8_t*>(bits)[i] = standInByte(size, i);
        if (const WorkerFacts known = facts(); m_name.starts_with(L"facts"))
            std::memcpy(bits, &known, sizeof known);
        return S_OK;
    }

private:
    std::wstring m_name;
};

HRESULT create(REFIID riid, void** ppv) {
    return handOut(new (std::nothrow) StandIn, riid, ppv);
}
constexpr ClassRow classes[] = {{&CLSID_ClipforgeThumbnails, create}};
} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    if (reason != DLL_PROCESS_ATTACH)
        return TRUE;
    if (GetFileAttributesW((folderOf(ownModulePath()) + L"hang in DllMain").c_str()) !=
        INVALID_FILE_ATTRIBUTES)
        Sleep(INFINITE);
    attachServer(module);
    return TRUE;
}

STDAPI DllCanUnloadNow() {
    return canUnloadServer();
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
    return getClassObject(classes, rclsid, riid, ppv);
}
