#include "HandlerFixture.h"

#include <stdexcept>

#include "BitmapPixels.h"
#include "GuardedBitmaps.h"

std::filesystem::path testedLibrary() {
    wchar_t name[64];
    const DWORD length = GetEnvironmentVariableW(L"CLIPFORGE_TESTED_LIBRARY", name, 64);
    return length != 0 ? name : L"Clipforge_Thumbnails.dll";
}

HandlerModule::HandlerModule(const std::filesystem::path& file) {
    if (load(file.wstring()) != S_OK)
        throw std::runtime_error("the handler cannot be loaded");
    guardBitmapsOf(module());
}

HRESULT HandlerModule::getClassObject(REFCLSID classId, REFIID interfaceId, void** object) const {
    return exportOf<decltype(&DllGetClassObject)>(module(), "DllGetClassObject")(classId, interfaceId,
                                                                                 object);
}

ComPtr<IClassFactory> HandlerModule::factory() const {
    ComPtr<IClassFactory> factory;
    const bool isGuard = testedLibrary() == L"Clipforge_Guard.dll";
    EXPECT_RESULT(S_OK, getClassObject(isGuard ? CLSID_ClipforgeGuardedThumbnails : CLSID_ClipforgeThumbnails,
                                       IID_PPV_ARGS(&factory)));
    return factory;
}

ComPtr<IInitializeWithFile> HandlerModule::provider() const {
    ComPtr<IInitializeWithFile> provider;
    EXPECT_RESULT(S_OK, factory()->CreateInstance(nullptr, IID_PPV_ARGS(&provider)));
    return provider;
}

void HandlerTest::SetUp() {
    m_decoder.reset();
    DeleteDC(CreateCompatibleDC(nullptr)); // with a process's first one come objects of the system's own
    m_gdiObjects = countGdiObjects();
    load(builtFile("bin"));
}

void HandlerTest::TearDown() {
    EXPECT_RESULT(S_OK, m_handler->call("DllCanUnloadNow"));
    m_handler.reset();
    EXPECT_EQ(nullptr, GetModuleHandleW(testedLibrary().c_str()));
    expectNothingLeft(0);
    m_decoder.disarm();
}

void HandlerTest::load(const std::filesystem::path& folder) {
    m_handler.reset();
    m_handler = std::make_unique<HandlerModule>(folder / testedLibrary());
}

Answer HandlerTest::ask(const std::optional<std::wstring>& path, UINT size) {
    const bool wasFree = path && isFree(*path);
    const ComPtr<IInitializeWithFile> provider = m_handler->provider();
    if (path) {
        EXPECT_RESULT(S_OK, provider->Initialize(path->c_str(), STGM_READ));
    }
    Answer answer = ask(provider.Get(), size);
    EXPECT_TRUE(!wasFree || isFree(*path)) << "the clip is still open";
    return answer;
}

Answer HandlerTest::ask(IInitializeWithFile* file, UINT size) {
    const auto untouchedBitmap = reinterpret_cast<HBITMAP>(UINT_PTR{0x5A5A});
    constexpr auto untouchedAlpha = static_cast<WTS_ALPHATYPE>(3);
    ComPtr<IThumbnailProvider> provider;
    EXPECT_RESULT(S_OK, file->QueryInterface(IID_PPV_ARGS(&provider)));
    Answer answer;
    HBITMAP bitmap = untouchedBitmap;
    WTS_ALPHATYPE alpha = untouchedAlpha;
    answer.result = provider->GetThumbnail(size, &bitmap, &alpha);
    answer.isUntouched = bitmap == untouchedBitmap;
    EXPECT_EQ(answer.isUntouched ? untouchedAlpha : WTSAT_ARGB, alpha);
    if (!answer.isUntouched)
        *answer.bitmap.put() = bitmap;
    EXPECT_EQ(answer.result == S_OK, answer.bitmap.get() != nullptr) << Result{answer.result};
    if (DIBSECTION section{}; answer.bitmap.get() != nullptr) {
        EXPECT_TRUE(isThumbnailBitmap(answer.bitmap.get(), section));
        answer.size = {section.dsBmih.biWidth, section.dsBmih.biHeight};
        answer.pixels = readPixels(answer.bitmap.get(), answer.size.cx, answer.size.cy);
        EXPECT_FALSE(answer.pixels.empty());
    }
    expectNothingLeft(answer.bitmap.get() != nullptr ? 1 : 0);
    return answer;
}

void HandlerTest::expectNothingLeft(uint32_t bitmaps) {
    const ReferenceDecoderAccount account = m_decoder.account();
    EXPECT_TRUE(m_faultsArmed ? account.isBalanced() && account.isSound() : account.isClean())
        << account.describe();
    EXPECT_EQ(nullptr, GetModuleHandleW(L"BlackmagicRawAPI.dll"));
    EXPECT_EQ(m_gdiObjects + bitmaps, countGdiObjects());
}
