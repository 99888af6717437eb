// The objects' rules: who keeps the module loaded, who is whom, and what is refused.
#include "HandlerFixture.h"
#include "Imports.h"

namespace {
class ComObjects : public HandlerTest {
protected:
    void expectInUse(bool inUse) {
        EXPECT_RESULT(inUse ? S_FALSE : S_OK, m_handler->call("DllCanUnloadNow"));
    }
};

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
    const CLSID& ours = CLSID_ClipforgeThumbnails;
    void* object = this;
    EXPECT_RESULT(CLASS_E_CLASSNOTAVAILABLE,
                  m_handler->getClassObject(CLSID_ShellLink, IID_IClassFactory, &object));
    EXPECT_EQ(nullptr, object);
    EXPECT_RESULT(E_NOINTERFACE, m_handler->getClassObject(ours, __uuidof(IThumbnailProvider), &object));
    EXPECT_RESULT(E_POINTER, m_handler->getClassObject(ours, IID_IClassFactory, nullptr));
    expectInUse(false);

    const auto factory = m_handler->factory();
    EXPECT_RESULT(CLASS_E_NOAGGREGATION, factory->CreateInstance(factory.Get(), IID_IUnknown, &object));
    EXPECT_RESULT(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IClassFactory, &object));
    EXPECT_EQ(nullptr, object);
    EXPECT_RESULT(E_POINTER, factory->CreateInstance(nullptr, IID_IUnknown, nullptr));
}

TEST_F(ComObjects, OneIdentityAndOneCountBehindBothInterfaces) {
    const auto file = m_handler->provider();
    ComPtr<IThumbnailProvider> thumbnails;
    ComPtr<IUnknown> fromFile, fromThumbnails;
    file.As(&thumbnails);
    file.As(&fromFile);
    thumbnails.As(&fromThumbnails);
    EXPECT_EQ(fromFile.Get(), fromThumbnails.Get());
    EXPECT_EQ(static_cast<void*>(fromFile.Get()), static_cast<void*>(file.Get()));
    EXPECT_NE(static_cast<void*>(fromFile.Get()), static_cast<void*>(thumbnails.Get()));
    const ULONG count = file->AddRef();
    EXPECT_EQ(count - 1, thumbnails->Release());

    HBITMAP bitmap = nullptr;
    WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
    EXPECT_RESULT(E_POINTER, thumbnails->GetThumbnail(16, nullptr, &alpha));
    EXPECT_RESULT(E_POINTER, thumbnails->GetThumbnail(16, &bitmap, nullptr));
}

ComPtr<IThumbnailProvider> g_again;
decltype(&CreateDIBSection) g_makeBitmap;
HRESULT g_answer;
DWORD g_errorMode;

/// As a driver that serves the apartment's messages, and finds the shell's next question among them.
HBITMAP WINAPI askAgain(HDC context, const BITMAPINFO* info, UINT usage, void** bits, HANDLE section,
                        DWORD offset) {
    HBITMAP bitmap = nullptr;
    WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
    g_errorMode = GetThreadErrorMode();
    if (const ComPtr<IThumbnailProvider> again = std::exchange(g_again, nullptr))
        g_answer = again->GetThumbnail(16, &bitmap, &alpha);
    EXPECT_EQ(nullptr, bitmap);
    return g_makeBitmap(context, info, usage, bits, section, offset);
}

TEST_F(ComObjects, AQuestionWithinAQuestionIsRefusedAndNobodyIsAsked) {
    const std::wstring clip = writeClip();
    const DWORD before = GetThreadErrorMode();
    for (const bool ofTheSame : {false, true}) {
        const auto provider = m_handler->provider(), other = m_handler->provider();
        provider->Initialize(clip.c_str(), 0);
        other->Initialize(clip.c_str(), 0);
        (ofTheSame ? provider : other).As(&g_again);
        const ReplacedImport bitmaps("CreateDIBSection", &askAgain, m_handler->module());
        g_makeBitmap = bitmaps.former();
        SetThreadErrorMode(SEM_NOGPFAULTERRORBOX, nullptr); // the host's own choice, which stays
        EXPECT_RESULT(S_OK, ask(provider.Get()).result);
        EXPECT_RESULT(E_FAIL, g_answer);
        EXPECT_EQ(DWORD{SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX | SEM_NOGPFAULTERRORBOX},
                  g_errorMode);
        EXPECT_EQ(DWORD{SEM_NOGPFAULTERRORBOX}, GetThreadErrorMode());
        SetThreadErrorMode(before, nullptr);
    }
}

TEST_F(ComObjects, TheLastGoodPathCounts) {
    const auto provider = m_handler->provider();
    EXPECT_RESULT(E_UNEXPECTED, provider->Initialize(nullptr, 0));
    EXPECT_RESULT(E_FAIL, ask(provider.Get()).result) << "no path was given yet";
    EXPECT_RESULT(S_OK, provider->Initialize(writeClip({64, 16}, L"wide.braw").c_str(), 0));
    EXPECT_RESULT(S_OK, provider->Initialize(writeClip({16, 64}, L"tall.braw").c_str(), 0));
    EXPECT_RESULT(E_UNEXPECTED, provider->Initialize(nullptr, 0));
    for (int i = 0; i < 2; ++i) // each thumbnail starts afresh
        EXPECT_EQ(64, ask(provider.Get()).size.cy);
}
} // namespace
