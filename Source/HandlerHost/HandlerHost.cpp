#include "HandlerHost.h"

#include <chrono>
#include <type_traits>

using Microsoft::WRL::ComPtr;

namespace {

/// In the order in which they are tried: the installer registers the guard alone.
constexpr CLSID ourClasses[] = {CLSID_ClipforgeThumbnails, CLSID_ClipforgeGuardedThumbnails};

HRESULT lastError() {
    return HRESULT_FROM_WIN32(GetLastError());
}

HRESULT createHandler(const HandlerLibrary* library, IInitializeWithFile** handler) {
    void** const object = reinterpret_cast<void**>(handler);
    if (library != nullptr)
        return library->createHandler(IID_IInitializeWithFile, object);
    HRESULT result = REGDB_E_CLASSNOTREG;
    for (const CLSID& classId : ourClasses)
        if (result == REGDB_E_CLASSNOTREG)
            result =
                CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, IID_IInitializeWithFile, object);
    return result;
}

} // namespace

HRESULT HandlerLibrary::load(const std::wstring& path) {
    m_module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    return m_module != nullptr ? S_OK : lastError();
}

HRESULT HandlerLibrary::createHandler(REFIID riid, void** object) const {
    const auto getClassObject = exportOf<decltype(&DllGetClassObject)>(m_module, "DllGetClassObject");
    if (getClassObject == nullptr)
        return lastError();
    ComPtr<IClassFactory> factory;
    HRESULT result = CLASS_E_CLASSNOTAVAILABLE;
    for (const CLSID& classId : ourClasses)
        if (result == CLASS_E_CLASSNOTAVAILABLE)
            result = getClassObject(classId, IID_IClassFactory,
                                    reinterpret_cast<void**>(factory.ReleaseAndGetAddressOf()));
    return FAILED(result) ? result : factory->CreateInstance(nullptr, riid, object);
}

HRESULT HandlerLibrary::call(const char* name) const {
    const auto function = exportOf<HRESULT(WINAPI*)()>(m_module, name);
    return function != nullptr ? function() : E_NOINTERFACE;
}

HRESULT HandlerLibrary::unload() {
    if (m_module == nullptr)
        return S_OK;
    if (const HRESULT result = call("DllCanUnloadNow"); result != S_OK && result != E_NOINTERFACE)
        return S_FALSE;
    return FreeLibrary(std::exchange(m_module, nullptr)) ? S_OK : lastError();
}

ThumbnailAnswer askForThumbnail(const std::wstring& clip, UINT size, const HandlerLibrary* library) {
    ThumbnailAnswer answer;
    const auto done = [&answer](const wchar_t* step, HRESULT result) {
        answer.step = step;
        answer.result = result;
        return SUCCEEDED(result);
    };

    ComPtr<IInitializeWithFile> file;
    ComPtr<IThumbnailProvider> provider;
    if (!done(L"Creating the handler", createHandler(library, file.GetAddressOf())))
        return answer;
    if (!done(L"Initialize", file->Initialize(clip.c_str(), STGM_READ)))
        return answer;
    if (!done(L"QueryInterface", file.As(&provider)))
        return answer;

    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const HRESULT result = provider->GetThumbnail(size, answer.bitmap.put(), &answer.alpha);
    answer.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    done(L"GetThumbnail", result);
    return answer;
}

bool isThumbnailBitmap(HBITMAP bitmap, DIBSECTION& section) {
    if (GetObjectW(bitmap, sizeof(section), &section) != sizeof(section))
        return false;
    return section.dsBm.bmBits != nullptr && section.dsBmih.biBitCount == 32 && section.dsBmih.biWidth > 0 &&
           section.dsBmih.biHeight > 0;
}
