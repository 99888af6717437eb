// The decoder library as a file: where it is found, who holds it, and what is freed with it.
#include "DecodeCoreFixture.h"

#include "BlackmagicRawAPIDispatch.h"
#include "BuiltFile.h"
#include "LogSession.h"
#include "Utils/vdSettings.h"

namespace fs = std::filesystem;

namespace {

constexpr wchar_t avx[] = L"InstructionSetServicesAVX.dll", avx2[] = L"InstructionSetServicesAVX2.dll";

/// The library, and two that stand for its helpers, in a folder. None may be left loaded.
class LoaderTest : public testing::Test {
protected:
    LoaderTest() {
        m_decoder.reset();
        fs::copy_file(builtFile("bin/BlackmagicRawAPI.dll"), m_folder.path() / "BlackmagicRawAPI.dll");
        for (const wchar_t* helper : {avx, avx2}) // any library will do
            fs::copy_file(builtFile("cuda/cudart64_110.dll"), m_folder.path() / helper);
    }
    ~LoaderTest() override {
        EXPECT_FALSE(isLoaded());
        EXPECT_EQ(m_decoder.account().unbalancedUnloads, 0);
    }

    static bool isLoaded(const wchar_t* name = BlackmagicRawAPIFileName) {
        return GetModuleHandleW(name) != nullptr;
    }
    bool tryToInit(Instance& instance) { return tryToInitBM(instance, m_folder.text() + "\\"); }
    HMODULE load(const wchar_t* name) { return LoadLibraryW((m_folder.path() / name).c_str()); }

    TemporaryFolder m_folder;
    ReferenceDecoderSession m_decoder;
};

TEST_F(LoaderTest, IsUnloadedWithItsLastHolder) {
    Instance first;
    ASSERT_TRUE(tryToInit(first));
    EXPECT_TRUE(isTheDllLastVersion(first));
    EXPECT_EQ(initBM(first), 1);
    {
        const TemporaryFolder elsewhere;
        fs::copy_file(builtFile("bin/BlackmagicRawAPI.dll"), elsewhere.path() / "BlackmagicRawAPI.dll");
        Instance second, never;
        ASSERT_TRUE(tryToInitBM(second, elsewhere.text() + "\\")) << "what is loaded serves everybody";
        EXPECT_EQ(m_decoder.account().loads, 1);
    }
    EXPECT_TRUE(isLoaded());
    Microsoft::WRL::ComPtr<IBlackmagicRaw> codec;
    EXPECT_EQ(first.factory->CreateCodec(&codec), S_OK);
    codec.Reset();

    Instance third;
    ASSERT_TRUE(tryToInit(third));
    EXPECT_EQ(Release(first), 0);
    EXPECT_EQ(Release(first), 0) << "once more changes nothing";
    EXPECT_TRUE(isLoaded());
    EXPECT_EQ(Release(third), 0);
    EXPECT_FALSE(isLoaded() || third.isInitialised);
    EXPECT_TRUE(tryToInit(third)) << "and it comes again";
}

TEST_F(LoaderTest, RefusedInitLeavesItToWhoUsesIt) {
    vdBRAW_Manager manager;
    for (const int expected : {0, 1}) {
        auto instance = std::make_unique<Instance>();
        ASSERT_TRUE(tryToInit(*instance));
        EXPECT_EQ(manager.init(std::move(instance)), expected);
    }
    ASSERT_TRUE(isLoaded());
    EXPECT_TRUE(manager.createBufferManager());
    uint64_t id = 0;
    EXPECT_EQ(manager.AddClip(m_folder.text("missing.braw"), id), 1);
}

TEST_F(LoaderTest, StaysAsLongAsAHostHasARequest) {
    writeTestClip(m_folder.path() / "clip.braw", {});
    TestRequest request;
    {
        vdBRAW_Manager manager;
        auto instance = std::make_unique<Instance>();
        uint64_t id = 0;
        ASSERT_TRUE(tryToInit(*instance));
        ASSERT_EQ(manager.init(std::move(instance)), 0);
        ASSERT_EQ(manager.AddClip(m_folder.text("clip.braw"), id), 0);
        request.m_clipInUse = manager.GetClip(id)->m_bmClipEx;
        request.m_bufferManager = manager.createBufferManager();
    }
    EXPECT_TRUE(isLoaded());
}

TEST_F(LoaderTest, HelpersOfTheHostStay) {
    // Whether the host has them is judged at each load: not before it, and not once for all.
    const struct {
        const wchar_t* ofTheHost;
        bool avxStays, avx2Stays;
    } cases[] = {{L"none", false, false}, {avx, true, true}, {avx2, false, true}, {L"none", false, false}};
    for (const auto& [ofTheHost, avxStays, avx2Stays] : cases) {
        const HMODULE hosts = load(ofTheHost);
        Instance instance;
        ASSERT_TRUE(tryToInit(instance));
        const HMODULE loaded[] = {load(avx), load(avx2)}; // as the decoder does
        Release(instance);
        EXPECT_EQ(isLoaded(avx), avxStays);
        EXPECT_EQ(isLoaded(avx2), avx2Stays);
        if (avxStays)
            FreeLibrary(loaded[0]);
        if (avx2Stays)
            FreeLibrary(loaded[1]);
        if (hosts)
            FreeLibrary(hosts);
        EXPECT_FALSE(isLoaded(avx) || isLoaded(avx2));
    }
}

TEST_F(LoaderTest, HelpersStayWithALibraryThatStays) {
    Instance instance;
    ASSERT_TRUE(tryToInit(instance));
    const HMODULE helper = load(avx), others = load(BlackmagicRawAPIFileName);
    Release(instance);
    EXPECT_TRUE(isLoaded(avx));
    FreeLibrary(others);
    FreeLibrary(helper);
}

TEST_F(LoaderTest, LooksInItsOwnFolderAndThenInTheHosts) {
    const fs::path hosts = "C:\\Program Files\\Adobe\\Common\\Plug-ins\\7.0\\MediaCore\\Clipforge";
    const LogSession log(vdLogLevel::info);
    {
        Instance nowhere;
        EXPECT_EQ(initBM(nowhere), 1);
        EXPECT_FALSE(nowhere.libraryFolder.get());
    }
    fs::create_directories(hosts);
    fs::copy_file(m_folder.path() / "BlackmagicRawAPI.dll", hosts / "BlackmagicRawAPI.dll",
                  fs::copy_options::overwrite_existing);
    {
        Instance instance;
        EXPECT_EQ(initBM(instance), 0);
        EXPECT_EQ(instance.libraryFolder.view(), hosts.wstring() + L"\\");
    }
    EXPECT_FALSE(isLoaded());
    fs::remove_all("C:\\Program Files\\Adobe");
    int missing = 0;
    for (const std::string& line : log.lines())
        missing += line.find("This path does not exist") != line.npos;
    EXPECT_EQ(missing, 3);
}

TEST_F(LoaderTest, LibraryWithoutItsEntryPointIsNone) {
    fs::copy_file(builtFile("cuda/cudart64_110.dll"), m_folder.path() / "BlackmagicRawAPI.dll",
                  fs::copy_options::overwrite_existing);
    Instance instance;
    EXPECT_FALSE(tryToInit(instance) || isLoaded());
}

// Each host's own switch lets its pipeline be the GPU's, and no other's.
TEST(HostOptions, EachHostHasItsOwnSwitchForTheGpu) {
    for (const int32_t framework : {brFrameworkShell, brFrameworkPremiere, brFrameworkAfterEffects})
        for (const bool premiere : {false, true})
            for (const bool afterEffects : {false, true}) {
                options().prproHybridGPUCPUDecoding = premiere;
                options().aeLayerSettingsGPUEnabled3 = afterEffects;
                Instance instance;
                instance.framework = framework;
                initBM(instance);
                EXPECT_EQ(instance.useGpuPipeline,
                          (framework == 4 && premiere) || (framework == 6 && afterEffects))
                    << framework;
            }
    resetOptions();
}

} // namespace
