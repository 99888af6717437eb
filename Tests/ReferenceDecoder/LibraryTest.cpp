// The library as a file of its own: what it exports, and that its account outlives it.
#include "DecoderFixture.h"

namespace {

std::filesystem::path libraryPath() {
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    return (std::filesystem::path(program).parent_path() / REFERENCE_LIBRARY).make_preferred();
}

class LibraryTest : public DecoderTest {};

// Faults: the padding gone wrong; threads or locks that keep the library loaded; leaks that go unnoticed.
TEST_F(LibraryTest, TheFileLoadsDecodesAndUnloadsWithAnAccount) {
    EXPECT_EQ(std::filesystem::file_size(libraryPath()), 2161112u);
    for (const bool leak : {false, true}) {
        m_session.reset();
        const HMODULE library = LoadLibraryW(libraryPath().c_str());
        ASSERT_NE(library, nullptr);
        const auto create = reinterpret_cast<CreateBlackmagicRawFactoryInstanceFunction>(
            reinterpret_cast<void*>(GetProcAddress(library, "CreateBlackmagicRawFactoryInstance")));
        ASSERT_NE(create, nullptr);
        IBlackmagicRawFactory* factory = create();
        ComPtr<IBlackmagicRaw> codec;
        ASSERT_EQ(factory->CreateCodec(&codec), S_OK);
        ComPtr<IBlackmagicRawClip> clip;
        const BSTR name = SysAllocString(clipFile(TestClip{}).make_preferred().c_str());
        ASSERT_EQ(codec->OpenClip(name, &clip), S_OK);
        SysFreeString(name);
        ComPtr<IBlackmagicRawClipEx> clipEx;
        ComPtr<IBlackmagicRawJob> job;
        uint32_t bytes = 0;
        ASSERT_EQ(clip.As(&clipEx), S_OK);
        ASSERT_EQ(clipEx->GetBitStreamSizeBytes(0, &bytes), S_OK);
        std::vector<char> buffer(bytes);
        ASSERT_EQ(clipEx->CreateJobReadFrame(0, buffer.data(), bytes, &job), S_OK);
        ASSERT_EQ(job->Submit(), S_OK);
        job.Reset();
        clipEx.Reset();
        clip.Reset();
        codec.Reset();
        if (!leak)
            factory->Release();
        FreeLibrary(library);
        EXPECT_EQ(GetModuleHandleW(libraryPath().c_str()), nullptr);

        const ReferenceDecoderAccount account = m_session.account();
        EXPECT_EQ(account.loads, 1);
        EXPECT_EQ(account.unloads, 1);
        EXPECT_EQ(account.jobsCompleted, 1);
        EXPECT_EQ(account.unbalancedUnloads, leak ? 1 : 0);
        EXPECT_EQ(account.liveReferences, leak ? 1 : 0);
    }
    // What was leaked on purpose goes from the books, for the tests that follow.
    referenceDecoderControl().account.liveReferences = 0;
    referenceDecoderControl().account.liveObjects = 0;
    m_session.reset();
}

} // namespace
