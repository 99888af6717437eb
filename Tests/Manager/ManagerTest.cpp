// The manager, its clips and its queue.
#include "DecodeCoreFixture.h"
#include "LogSession.h"

#include <tuple>

#include "Utils/vdResult.h"

namespace {

constexpr HRESULT strangeFailure = static_cast<HRESULT>(0x8ABCDEF1);
const std::string denied = hresultText(E_ACCESSDENIED);

using ManagerTest = DecodeCoreTest;

TEST_F(ManagerTest, InitTellsTheUserWhatIsMissing) {
    const struct {
        bool isLoaded, hasFactory;
        uintmax_t libraryBytes;
        const char* errorInfo;
    } cases[] = {
        {false, true, 2'161'112,
         "Blackmagic RAW library hasn't been found - Please Reinstall our Software from our website"},
        {true, false, 2'161'112, "Manager Init : Factory is nullptr"},
        {true, true, 2'161'113,
         "Blackmagic RAW library has not the good version  - Please Reinstall our Software from our website"},
    };
    vdBRAW_Manager manager;
    arm("Factory::CreateCodec");
    EXPECT_EQ(manager.init(makeInstance()), 1) << "a good library, for all that is known of it";
    for (const auto& [isLoaded, hasFactory, libraryBytes, errorInfo] : cases) {
        auto instance = makeInstance();
        instance->isInitialised = isLoaded;
        if (!hasFactory)
            std::exchange(instance->factory, nullptr)->Release();
        std::filesystem::resize_file(m_folder.path() / "BlackmagicRawAPI.dll", libraryBytes);
        EXPECT_EQ(manager.init(std::move(instance)), 1);
        EXPECT_EQ(manager.initFromFramework(blackmagicRawPipelineCPU, false), 1) << "nor may it be started";
        EXPECT_EQ(manager.m_errorInfo.text(), errorInfo);
        uint64_t id = 0;
        EXPECT_EQ(manager.AddClip(m_clipPath, id), 1) << "a manager that failed must not open clips";
    }
    EXPECT_EQ(m_manager->init(nullptr), 1);
    EXPECT_EQ(m_manager->m_errorInfo.text(), "Blackmagic is not initialized : Abnormal error.");
}

TEST_F(ManagerTest, InitFailsAtEachInterfaceThatItNeeds) {
    const struct {
        const char* call;
        uint32_t occurrence;
        const char* errorInfo; ///< empty: the CPU pipeline can do without
    } cases[] = {
        {"Factory::CreateCodec", 1, "Blackmagic Factory creation error : Abnormal error."},
        {"::QueryInterface", 1, "Impossible to Query BlackmagicRawConfiguraton from Codec"},
        {"::QueryInterface", 2, "Impossible to Get ConfigurationEx from Codec"},
        {"ConfigurationEx::GetResourceManager", 1, "Impossible to Get ResourceManager from ConfigurationEx"},
        {"::QueryInterface", 3, "Impossible to Get ManualDecoderCPU from Codec"},
        {"::SetCallback", 1, "Blackmagic Callback setting error : Abnormal error."},
        {"PipelineDevice::GetName", 1, ""},
        {"Factory::CreatePipelineIterator", 1, ""},
        {"Factory::CreatePipelineDeviceIterator", 1, ""},
        {"PipelineIterator::GetPipeline", 1, ""},
        {"PipelineDeviceIterator::CreateDevice", 1, ""},
    };
    for (const auto& [call, occurrence, errorInfo] : cases)
        for (const Kind kind : {Kind::fail, Kind::succeedEmpty}) {
            if (kind == Kind::succeedEmpty && std::string_view(call) == "::SetCallback")
                continue; // gives nothing that could be empty
            SCOPED_TRACE(std::string(call) + (kind == Kind::fail ? " fails" : " gives nothing"));
            for (const bool useGpu : {false, true}) {
                arm(call, occurrence, kind, strangeFailure);
                vdBRAW_Manager manager;
                EXPECT_EQ(manager.init(makeInstance(useGpu)), *errorInfo ? 1 : 0);
                EXPECT_EQ(manager.m_errorInfo.text(), errorInfo);
                EXPECT_EQ(m_decoder.account().faultsFired, 1);
                EXPECT_EQ(manager.Release(), 0);
            }
        }
}

TEST_F(ManagerTest, PipelinesThatNeverEndAreNotWalkedForEver) {
    arm("PipelineIterator::Next", 0, Kind::succeedEmpty); // stands on a pipeline that is not wanted
    EXPECT_EQ(init(), 0);
    EXPECT_FALSE(m_manager->m_instance->pipelineDevice);
}

TEST_F(ManagerTest, SecondInitKeepsTheCodecAndReinitialisationReloadsEveryClip) {
    ASSERT_EQ(init(), 0);
    EXPECT_FALSE(m_manager->m_manualDecoderGPU) << "the CPU pipeline needs no GPU decoder";
    Instance* const instance = m_manager->m_instance.get();
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(m_decoder.occurrencesOf("IBlackmagicRawConfiguration::GetVersion"), 0u) << "nobody reads it";
    EXPECT_EQ(m_manager->m_instance.get(), instance);
    EXPECT_EQ(m_decoder.occurrencesOf("IBlackmagicRawFactory::CreateCodec"), 1u);

    const auto first = addClip(m_clipPath);
    const auto second = addClip(writeClip("other.braw", {32, 16}));
    EXPECT_EQ(m_manager->initFromFramework(blackmagicRawPipelineCPU, false), 0);
    EXPECT_EQ(m_manager->GetClip(0), first);
    EXPECT_EQ(m_manager->GetClip(1), second);
    EXPECT_TRUE(first->m_isOpened && second->m_isOpened);
    m_request = makeRequest(*second);
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0);
    EXPECT_EQ(m_request->m_errorMessage, "");

    // A GPU that comes without our asking needs no runtime of ours.
    const LogSession log(vdLogLevel::info);
    m_manager->initFromFramework(blackmagicRawPipelineCUDA, false);
    for (const std::string& line : log.lines())
        EXPECT_EQ(line.find("Loading CUDA"), line.npos);
}

TEST_F(ManagerTest, ClipsAreFoundByTheirExactPath) {
    ASSERT_EQ(init(), 0);
    uint64_t id = 99;
    EXPECT_EQ(m_manager->AddClipIfNew(m_folder.text("missing.braw"), id), 1);
    EXPECT_EQ(m_manager->GetClip(0), nullptr) << "a clip that failed must not be registered";
    std::string upper = m_clipPath;
    upper.replace(upper.size() - 4, 4, "BRAW");
    for (const auto& [path, expected] : {std::pair(m_clipPath, 0u), {upper, 1u}, {m_clipPath, 0u}}) {
        EXPECT_EQ(m_manager->AddClipIfNew(path, id), 0);
        EXPECT_EQ(id, expected);
    }
    EXPECT_EQ(m_decoder.occurrencesOf("IBlackmagicRaw::OpenClipWithGeometry"), 3u);
    EXPECT_EQ(m_manager->GetClip(2), nullptr);

    const auto clip = m_manager->GetClip(0);
    EXPECT_EQ(m_manager->CloseClip(clip), 0);
    EXPECT_EQ(m_manager->CloseClip(nullptr), 0);
    EXPECT_TRUE(clip->doesNeedToBeReloaded());
    EXPECT_EQ(m_manager->AddClipIfNew(m_clipPath, id), 0);
    EXPECT_TRUE(clip->m_isOpened) << "a closed clip must be opened again when it is asked for by path";
    EXPECT_FALSE(clip->doesNeedToBeReloaded());
    EXPECT_EQ(m_decoder.occurrencesOf("IBlackmagicRaw::OpenClipWithGeometry"), 4u) << "with its geometry";
    const LogSession log(vdLogLevel::warn);
    arm("ClipEx::GetBitStreamSizeBytes", 0);
    EXPECT_TRUE(clip->doesNeedToBeReloaded()) << "a stale clip must be noticed";
    EXPECT_EQ(log.lines().size(), 1u) << "and is worth a line";

    arm("Factory::CreateClipGeometry", 1, Kind::fail, strangeFailure);
    EXPECT_EQ(m_manager->AddClip(m_clipPath, id), strangeFailure);
    EXPECT_EQ(m_manager->AddClip(m_clipPath, id), 0) << "the registry's lock must be free again";
}

TEST_F(ManagerTest, ClipOpeningNamesWhatFailed) {
    const struct {
        const char* call;
        uint32_t occurrence;
        std::string message;
        Kind kind = Kind::fail;
        int64_t value = E_ACCESSDENIED;
    } cases[] = {
        {"::OpenClip", 1, "Impossible to open Clip with Library ! " + denied},
        {"Clip::GetFrameRate", 1, "Failed to get FrameRate from BM - " + denied},
        {"Clip::GetFrameRate", 1, "FrameRate has a weird value : 0.000000", Kind::zero},
        {"Clip::GetFrameRate", 1, "FrameRate has a weird value : -1.000000", Kind::value, -1},
        {"Clip::GetFrameRate", 1, "FrameRate has a weird value : nan", Kind::allOnes},
        {"Clip::GetFrameCount", 1, "Failed to get FrameCount from BM - " + denied},
        {"Clip::QueryInterface", 1, "Impossible to query Resolutions ! " + denied},
        {"ClipResolutions::GetResolutionCount", 1, "Impossible to get ResolutionCount ! " + denied},
        {"ClipResolutions::GetResolution", 2, "Impossible to get Resolution from index 1 - " + denied},
        {"ClipResolutions::GetClosestScaleForResolution", 1,
         "Impossible to get ClosestScale from Resolution ! " + denied},
        {"ClipResolutions::GetClosestResolutionForScale", 1,
         "Impossible to get Closest Resolution For Scale ! " + denied},
        {"ClipResolutions::GetClosestResolutionForScale", 1,
         "Scale from Resolution does not return the same Resolution ! SecurityRes : 95x63", Kind::oneLess},
        {"ClipResolutions::GetClosestResolutionForScale", 1,
         "Scale from Resolution does not return the same Resolution ! SecurityRes : 96x96", Kind::value, 96},
        {"Clip::QueryInterface", 2, "Failed to get Raw Clip Ex from BM - " + denied},
    };
    Microsoft::WRL::ComPtr<IBlackmagicRaw> codec;
    Microsoft::WRL::ComPtr<IBlackmagicRawFactory> factory;
    // Attach of this toolchain would add a reference.
    *factory.GetAddressOf() = createReferenceDecoderFactory();
    ASSERT_EQ(factory->CreateCodec(&codec), S_OK);
    for (const auto& [call, occurrence, message, kind, value] : cases) {
        arm(call, occurrence, kind, value);
        vdBRAW_Clip clip(0, m_clipPath);
        EXPECT_EQ(clip.openAndInit(codec.Get(), nullptr).text(), message);
        EXPECT_FALSE(clip.m_bmClip || clip.m_bmClipEx) << call;
    }
    vdBRAW_Clip cut(0, "C:\\half a character \xF0\x9F");
    EXPECT_EQ(cut.openAndInit(codec.Get(), nullptr).text(),
              "Impossible to open Clip with Library ! " + hresultText(E_INVALIDARG));

    // Every fact is the clip's own.
    writeClip("facts.braw", {.width = 97, .height = 33, .frames = 3, .framesPerSecond = "23.976"});
    vdBRAW_Clip facts(5, m_folder.text("facts.braw"));
    EXPECT_TRUE(facts.doesNeedToBeReloaded());
    EXPECT_FALSE(facts.openAndInit(codec.Get(), nullptr).failed);
    EXPECT_TRUE(facts.m_isOpened && facts.m_id == 5 && facts.m_width == 97 && facts.m_height == 33);
    EXPECT_EQ(facts.m_frameCount, 3u);
    EXPECT_FLOAT_EQ(facts.m_frameRate, 23.976f);
    constexpr std::tuple<uint32_t, uint32_t, BlackmagicRawResolutionScale> resolutions[] = {
        {97, 33, blackmagicRawResolutionScaleFull},
        {49, 17, blackmagicRawResolutionScaleHalf},
        {25, 9, blackmagicRawResolutionScaleQuarter},
        {13, 5, blackmagicRawResolutionScaleEighth}};
    EXPECT_TRUE(
        std::ranges::equal(facts.m_resolutions, resolutions, [](const brResolution& a, const auto& b) {
            return std::tuple(a.width, a.height, a.scale) == b;
        }));
    facts.m_attachment = std::make_shared<int>();
    facts.Close(true);
    EXPECT_TRUE(facts.m_attachment && !facts.m_isOpened && !facts.m_bmClip && !facts.m_bmClipEx);
    facts.m_textPairs.emplace_back();
    EXPECT_FALSE(facts.reload(codec.Get()).failed);
    EXPECT_TRUE(!facts.m_attachment && facts.m_textPairs.empty() && facts.m_isOpened && facts.m_bmClipEx);
    EXPECT_EQ(facts.m_resolutions.size(), 4u);
    arm("Clip::QueryInterface");
    EXPECT_EQ(facts.reload(codec.Get()).text(), "Failed to get Raw Clip Ex from BM - " + denied);
    EXPECT_FALSE(facts.m_bmClip || facts.m_bmClipEx);
    facts.m_attachment = std::make_shared<int>();
    facts.Close(false);
    EXPECT_FALSE(facts.m_attachment);

    // A size that cannot be read is the full resolution's; and opened twice the list must not grow.
    arm("Clip::GetWidth");
    vdBRAW_Clip clip(0, m_clipPath);
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(clip.openAndInit(codec.Get(), nullptr).failed);
        EXPECT_EQ(clip.m_width, 96u);
        EXPECT_EQ(clip.m_height, 64u);
        EXPECT_EQ(clip.m_resolutions.size(), 4u);
    }
}

TEST_F(ManagerTest, QueueKeepsWhatRunsAndGivesBackWhatHasEnded) {
    const auto clip = start();
    EXPECT_EQ(m_manager->AddProcessFrameAsync(nullptr), 1);

    const auto failed = makeRequest(*clip);
    failed->HandleError(brErrorBitmap, S_OK, "before", false);
    EXPECT_EQ(m_manager->ProcessFrameSync(failed), 1) << "a request in error is not submitted";
    EXPECT_EQ(m_manager->AddProcessFrameAsync(failed), 0) << "but it can be queued";

    const auto stray = makeRequest(*clip);
    stray->m_clipId = 7;
    EXPECT_EQ(m_manager->AddProcessFrameAsync(stray), E_FAIL);
    EXPECT_EQ(stray->m_errorMessage, "(5) Impossible to Get Clip ..!");

    const auto disabled = makeRequest(*clip);
    disabled->m_isEnabled = false;
    EXPECT_EQ(m_manager->AddProcessFrameAsync(disabled), 0);
    EXPECT_EQ(disabled->delivered, 1);
    EXPECT_EQ(m_decoder.account().jobsSubmitted, 0);

    std::shared_ptr<vdBRAW_Request> found;
    bool isRunning = true;
    for (const auto& other : {makeRequest(*clip), std::shared_ptr<TestRequest>()}) {
        const LogSession log(vdLogLevel::info); // whose lines name the request
        EXPECT_EQ(m_manager->FindInQueue(other, found, isRunning), 0);
        EXPECT_FALSE(found || isRunning) << "an equal request is not the same one, and none is in no queue";
    }
    for (const auto& request : {stray, failed, disabled}) {
        EXPECT_TRUE(request->m_isSubmitted);
        m_manager->FindInQueue(request, found, isRunning);
        EXPECT_EQ(found, request);
        EXPECT_FALSE(isRunning);
        m_manager->FindInQueue(request, found, isRunning);
        EXPECT_FALSE(found) << "it must have left the queue";
    }

    // A completion that cannot tell whose it is: the request stays, and a flush cancels it.
    arm("Job::GetUserData", 2);
    m_request = makeRequest(*clip);
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0);
    EXPECT_FALSE(m_request->m_isFinished || m_request->m_isCancelled);
    const auto done = makeRequest(*clip);
    m_manager->AddProcessFrameAsync(done);
    EXPECT_EQ(m_manager->FlushQueue(), 0);
    EXPECT_TRUE(m_request->m_isCancelled && done->m_isFinished);
    m_manager->FindInQueue(done, found, isRunning);
    EXPECT_FALSE(found);
    m_manager->FindInQueue(m_request, found, isRunning);
    EXPECT_TRUE(found && isRunning);
    EXPECT_EQ(vdBRAW_Manager().FlushQueue(), 1);
}

} // namespace
