// The objects' rules: who keeps the module loaded, who is whom, and what is refused.
#include "HandlerFixture.h"

namespace {
class ComObjects : public HandlerTest {
protected:
    void expectInUse(bool inUse) { EXPECT_RESULT(inUse ? S_FALSE : S_OK, m_handler->canUnloadNow()); }
};

TEST_F(ComObjects, UnknownClassLeavesNoPointerBehind) {
    void* object = this;
    EXPECT_RESULT(CLASS_E_CLASSNOTAVAILABLE,
                  m_handler->getClassObject(CLSID_ShellLink, IID_IClassFactory, &object));
    EXPECT_EQ(nullptr, object);
    EXPECT_RESULT(E_POINTER,
                  m_handler->getClassObject(CLSID_ClipforgeThumbnails, IID_IClassFactory, nullptr));
    expectInUse(false);
}

TEST_F(ComObjects, WhatIsAliveKeepsTheModule) {
    auto factory = m_handler->factory();
    expectInUse(true);
    auto provider = m_handler->provider();
    factory.Reset();
    expectInUse(true); // an object whose code went away would take the shell with it
    provider.Reset();
    expectInUse(false);

    factory = m_handler->factory();
    EXPECT_RESULT(S_OK, factory->LockServer(TRUE));
    EXPECT_RESULT(S_OK, factory->LockServer(TRUE));
    EXPECT_RESULT(S_OK, factory->LockServer(FALSE));
    factory.Reset();
    expectInUse(true);
    EXPECT_RESULT(S_OK, m_handler->factory()->LockServer(FALSE));
    expectInUse(false);
}

TEST_F(ComObjects, RefusedCreationsLeaveNothing) {
    void* object = this;
    EXPECT_RESULT(E_NOINTERFACE, m_handler->getClassObject(CLSID_ClipforgeThumbnails,
                                                           __uuidof(IThumbnailProvider), &object));
    EXPECT_EQ(nullptr, object);

    const auto factory = m_handler->factory();
    ComPtr<IUnknown> outer;
    ASSERT_RESULT_OK(factory.As(&outer));
    EXPECT_RESULT(CLASS_E_NOAGGREGATION, factory->CreateInstance(outer.Get(), IID_IUnknown, &object));
    EXPECT_RESULT(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IClassFactory, &object));
    EXPECT_EQ(nullptr, object);
    EXPECT_RESULT(E_POINTER, factory->CreateInstance(nullptr, IID_IUnknown, nullptr));
    EXPECT_RESULT(E_POINTER, factory->QueryInterface(IID_IUnknown, nullptr));
}

TEST_F(ComObjects, OneIdentityAndOneCountBehindBothInterfaces) {
    const auto file = m_handler->provider();
    ComPtr<IThumbnailProvider> thumbnails;
    ComPtr<IUnknown> fromFile, fromThumbnails;
    ASSERT_RESULT_OK(file.As(&thumbnails));
    ASSERT_RESULT_OK(file.As(&fromFile));
    ASSERT_RESULT_OK(thumbnails.As(&fromThumbnails));
    EXPECT_EQ(fromFile.Get(), fromThumbnails.Get());
    EXPECT_EQ(static_cast<void*>(fromFile.Get()), static_cast<void*>(file.Get()));
    EXPECT_NE(static_cast<void*>(fromFile.Get()), static_cast<void*>(thumbnails.Get()));

    const ULONG count = file->AddRef();
    EXPECT_EQ(count - 1, thumbnails->Release());
    EXPECT_RESULT(E_POINTER, file->QueryInterface(IID_IUnknown, nullptr));
}

TEST_F(ComObjects, TheLastGoodPathCounts) {
    const std::wstring wide = writeClip(m_folder.path() / "wide.braw", {64, 16});
    const std::wstring tall = writeClip(m_folder.path() / "tall.braw", {16, 64});
    const auto provider = m_handler->provider();
    EXPECT_RESULT(E_UNEXPECTED, provider->Initialize(nullptr, 0));
    EXPECT_RESULT(E_FAIL, ask(provider.Get(), 16).result) << "no path was given yet";

    EXPECT_RESULT(S_OK, provider->Initialize(wide.c_str(), 0));
    EXPECT_RESULT(S_OK, provider->Initialize(tall.c_str(), 0));
    EXPECT_RESULT(E_UNEXPECTED, provider->Initialize(nullptr, 0));
    EXPECT_EQ(64, ask(provider.Get(), 16).size.cy);
    EXPECT_EQ(64, ask(provider.Get(), 16).size.cy) << "each thumbnail starts afresh";
}

TEST_F(ComObjects, GetThumbnailNeedsBothPlacesToWriteTo) {
    const auto file = m_handler->provider();
    ComPtr<IThumbnailProvider> provider;
    ASSERT_RESULT_OK(file.As(&provider));
    HBITMAP bitmap = nullptr;
    WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
    EXPECT_RESULT(E_POINTER, provider->GetThumbnail(16, nullptr, &alpha));
    EXPECT_RESULT(E_POINTER, provider->GetThumbnail(16, &bitmap, nullptr));
}
} // namespace
