// The manager, its clips and its queue.
#include "DecodeCoreFixture.h"

#include "Utils/vdResult.h"

namespace {

using Kind = ReferenceDecoderFaultKind;
constexpr HRESULT strangeFailure = static_cast<HRESULT>(0x8ABCDEF1);

using ManagerTest = DecodeCoreTest;

TEST_F(ManagerTest, InitTellsTheUserWhatIsMissing) {
    struct Case {
        const char* what;
        void (*spoil)(Instance& instance, const std::filesystem::path& folder);
        const char* errorInfo;
    };
    const Case cases[] = {
        {"library not loaded", [](Instance& i, const auto&) { i.isInitialised = false; },
         "Blackmagic RAW library hasn't been found - Please Reinstall our Software from our website"},
        {"no factory", [](Instance& i, const auto&) { std::exchange(i.factory, nullptr)->Release(); },
         "Manager Init : Factory is nullptr"},
        {"one byte too long",
         [](Instance&, const auto& folder) {
             std::filesystem::resize_file(folder / "BlackmagicRawAPI.dll", 2'161'113);
         },
         "Blackmagic RAW library has not the good version  - Please Reinstall our Software from our website"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        vdBRAW_Manager manager;
        auto instance = makeInstance();
        c.spoil(*instance, m_folder.path());
        EXPECT_EQ(manager.init(std::move(instance)), 1);
        EXPECT_EQ(manager.m_errorInfo.text(), c.errorInfo);
        uint64_t id = 0;
        EXPECT_EQ(manager.AddClip(m_clipPath, id), 1) << "a manager that failed must not open clips";
    }
    EXPECT_EQ(m_manager->init(nullptr), 1);
    EXPECT_EQ(m_manager->m_errorInfo.text(), "Blackmagic is not initialized : Abnormal error.");
}

TEST_F(ManagerTest, InitFailsAtEachInterfaceThatItNeeds) {
    struct Case {
        const char* call;
        uint32_t occurrence;
        int result;
        const char* errorInfo;
    };
    const Case cases[] = {
        {"IBlackmagicRawFactory::CreateCodec", 1, 1, "Blackmagic Factory creation error : Abnormal error."},
        {"IBlackmagicRaw::QueryInterface", 1, 1, "Impossible to Query BlackmagicRawConfiguraton from Codec"},
        {"IBlackmagicRaw::QueryInterface", 2, 1, "Impossible to Get ConfigurationEx from Codec"},
        {"IBlackmagicRawConfigurationEx::GetResourceManager", 1, 1,
         "Impossible to Get ResourceManager from ConfigurationEx"},
        {"IBlackmagicRaw::QueryInterface", 3, 1, "Impossible to Get ManualDecoderCPU from Codec"},
        {"IBlackmagicRaw::SetCallback", 1, 1, "Blackmagic Callback setting error : Abnormal error."},
        // What the CPU pipeline can do without.
        {"IBlackmagicRawPipelineDevice::GetName", 1, 0, ""},
        {"IBlackmagicRawFactory::CreatePipelineIterator", 1, 0, ""},
        {"IBlackmagicRawFactory::CreatePipelineDeviceIterator", 1, 0, ""},
        {"IBlackmagicRawPipelineIterator::GetPipeline", 1, 0, ""},
        {"IBlackmagicRawPipelineDeviceIterator::CreateDevice", 1, 0, ""},
    };
    for (const Case& c : cases)
        for (const Kind kind : {Kind::fail, Kind::succeedEmpty}) {
            if (kind == Kind::succeedEmpty && std::string_view(c.call) == "IBlackmagicRaw::SetCallback")
                continue; // gives nothing that could be empty
            SCOPED_TRACE(std::string(c.call) + (kind == Kind::fail ? " fails" : " gives nothing"));
            m_decoder.reset();
            m_decoder.arm({c.call, c.occurrence, kind, strangeFailure});
            vdBRAW_Manager manager;
            EXPECT_EQ(manager.init(makeInstance()), c.result);
            EXPECT_EQ(manager.m_errorInfo.text(), c.errorInfo);
            EXPECT_EQ(m_decoder.account().faultsFired, 1);
            EXPECT_EQ(manager.Release(), 0);
        }
}

TEST_F(ManagerTest, SecondInitKeepsTheCodec) {
    ASSERT_EQ(init(), 0);
    EXPECT_FALSE(m_manager->m_manualDecoderGPU) << "the CPU pipeline needs no GPU decoder";
    Instance* const first = m_manager->m_instance.get();
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(m_manager->m_instance.get(), first);
    EXPECT_EQ(m_decoder.occurrencesOf("IBlackmagicRawFactory::CreateCodec"), 1u);
    EXPECT_TRUE(addClip(m_clipPath));
}

TEST_F(ManagerTest, GPUThatCannotBeBoundIsTolerated) {
    m_decoder.arm({"IBlackmagicRawConfiguration::SetFromDevice", 1, Kind::fail, E_FAIL});
    ASSERT_EQ(init(true), 0);
    EXPECT_FALSE(m_manager->m_manualDecoderGPU);
    EXPECT_FALSE(m_manager->createBufferManager()->m_isGPU) << "no decoder would stand behind the buffers";
}

TEST_F(ManagerTest, ReinitialisationReloadsEveryClip) {
    ASSERT_EQ(init(), 0);
    const auto first = addClip(m_clipPath);
    const auto second = addClip(writeClip("other.braw", {32, 16}));
    first->m_attachment = std::make_shared<int>(1);
    EXPECT_EQ(m_manager->initFromFramework(blackmagicRawPipelineCPU, false), 0);
    EXPECT_EQ(m_manager->GetClip(0), first);
    EXPECT_EQ(m_manager->GetClip(1), second);
    EXPECT_TRUE(first->m_isOpened && second->m_isOpened);
    m_request = makeRequest(*second);
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0);
    EXPECT_EQ(m_request->m_errorMessage, "");
}

TEST_F(ManagerTest, ClipsAreFoundByTheirExactPath) {
    ASSERT_EQ(init(), 0);
    uint64_t id = 99;
    EXPECT_EQ(m_manager->AddClipIfNew(m_folder.text("missing.braw"), id), 1);
    EXPECT_EQ(m_manager->GetClip(0), nullptr) << "a clip that failed must not be registered";
    EXPECT_EQ(m_manager->AddClipIfNew(m_clipPath, id), 0);
    EXPECT_EQ(id, 0u);
    std::string upper = m_clipPath;
    upper.replace(upper.size() - 4, 4, "BRAW");
    EXPECT_EQ(m_manager->AddClipIfNew(upper, id), 0);
    EXPECT_EQ(id, 1u);
    EXPECT_EQ(m_manager->AddClipIfNew(m_clipPath, id), 0);
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(m_decoder.occurrencesOf("IBlackmagicRaw::OpenClipWithGeometry"), 3u);
    EXPECT_EQ(m_manager->GetClip(2), nullptr);

    const auto clip = m_manager->GetClip(0);
    EXPECT_EQ(m_manager->CloseClip(clip), 0);
    EXPECT_EQ(m_manager->CloseClip(nullptr), 0);
    EXPECT_TRUE(clip->doesNeedToBeReloaded());
    EXPECT_EQ(m_manager->AddClipIfNew(m_clipPath, id), 0);
    EXPECT_TRUE(clip->m_isOpened) << "a closed clip must be opened again when it is asked for by path";
    m_decoder.arm({"IBlackmagicRawClipEx::GetBitStreamSizeBytes", 0, Kind::fail, E_ACCESSDENIED});
    EXPECT_TRUE(clip->doesNeedToBeReloaded()) << "a stale clip must be noticed";
}

TEST_F(ManagerTest, GeometryThatCannotBeMadeFailsTheClipWithItsOwnResult) {
    ASSERT_EQ(init(), 0);
    uint64_t id = 0;
    m_decoder.arm({"IBlackmagicRawFactory::CreateClipGeometry", 1, Kind::fail, strangeFailure});
    EXPECT_EQ(m_manager->AddClip(m_clipPath, id), strangeFailure);
    EXPECT_EQ(m_manager->AddClip(m_clipPath, id), 0) << "the registry's lock must be free again";
}

TEST_F(ManagerTest, ClipOpeningNamesWhatFailed) {
    struct Case {
        const char* call;
        uint32_t occurrence;
        const char* message;
    };
    const Case cases[] = {
        {"IBlackmagicRaw::OpenClip", 1, "Impossible to open Clip with Library ! "},
        {"IBlackmagicRawClip::GetFrameRate", 1, "Failed to get FrameRate from BM - "},
        {"IBlackmagicRawClip::GetFrameCount", 1, "Failed to get FrameCount from BM - "},
        {"IBlackmagicRawClip::QueryInterface", 1, "Impossible to query Resolutions ! "},
        {"IBlackmagicRawClipResolutions::GetResolutionCount", 1, "Impossible to get ResolutionCount ! "},
        {"IBlackmagicRawClipResolutions::GetResolution", 2, "Impossible to get Resolution from index 1 - "},
        {"IBlackmagicRawClipResolutions::GetClosestScaleForResolution", 1,
         "Impossible to get ClosestScale from Resolution ! "},
        {"IBlackmagicRawClipResolutions::GetClosestResolutionForScale", 1,
         "Impossible to get Closest Resolution For Scale ! "},
        {"IBlackmagicRawClip::QueryInterface", 2, "Failed to get Raw Clip Ex from BM - "},
    };
    Microsoft::WRL::ComPtr<IBlackmagicRaw> codec;
    Microsoft::WRL::ComPtr<IBlackmagicRawFactory> factory;
    *factory.GetAddressOf() =
        createReferenceDecoderFactory(); // Attach of this toolchain would add a reference
    ASSERT_EQ(factory->CreateCodec(&codec), S_OK);
    for (const Case& c : cases) {
        m_decoder.reset();
        m_decoder.arm({c.call, c.occurrence, Kind::fail, E_ACCESSDENIED});
        vdBRAW_Clip clip(0, m_clipPath);
        EXPECT_EQ(clip.openAndInit(codec.Get(), nullptr).text(), c.message + hresultText(E_ACCESSDENIED));
        EXPECT_FALSE(clip.m_bmClip || clip.m_bmClipEx) << c.call;
    }
    struct Bent {
        const char* call;
        Kind kind;
        std::string message;
    };
    const Bent bent[] = {
        {"IBlackmagicRawClip::GetFrameRate", Kind::zero, "FrameRate has a weird value : 0.000000"},
        {"IBlackmagicRawClipResolutions::GetClosestResolutionForScale", Kind::oneLess,
         "Scale from Resolution does not return the same Resolution ! SecurityRes : 95x63"},
    };
    for (const Bent& b : bent) {
        m_decoder.reset();
        m_decoder.arm({b.call, 1, b.kind});
        EXPECT_EQ(vdBRAW_Clip(0, m_clipPath).openAndInit(codec.Get(), nullptr).text(), b.message);
    }
    vdBRAW_Clip cut(0, "C:\\half a character \xF0\x9F");
    EXPECT_EQ(cut.openAndInit(codec.Get(), nullptr).text(),
              "Impossible to open Clip with Library ! " + hresultText(E_INVALIDARG));
}

TEST_F(ManagerTest, SizeThatCannotBeReadComesFromTheFullResolution) {
    ASSERT_EQ(init(), 0);
    m_decoder.arm({"IBlackmagicRawClip::GetWidth", 1, Kind::fail, E_FAIL});
    const auto clip = addClip(m_clipPath);
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->m_width, 96u);
    EXPECT_EQ(clip->m_height, 64u);
    // Opened twice the list must not grow.
    Microsoft::WRL::ComPtr<IBlackmagicRaw> codec;
    ASSERT_EQ(m_manager->m_instance->factory->CreateCodec(&codec), S_OK);
    const size_t resolutions = clip->m_resolutions.size();
    EXPECT_FALSE(clip->openAndInit(codec.Get(), nullptr).failed);
    EXPECT_EQ(clip->m_resolutions.size(), resolutions);
    clip->Close(false);
}

TEST_F(ManagerTest, QueueKeepsWhatRunsAndGivesBackWhatHasEnded) {
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath);
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
    m_manager->FindInQueue(makeRequest(*clip), found, isRunning);
    EXPECT_FALSE(found || isRunning) << "an equal request is not the same one";
    for (const auto& request : {stray, failed, disabled}) {
        m_manager->FindInQueue(request, found, isRunning);
        EXPECT_EQ(found, request);
        EXPECT_FALSE(isRunning);
        m_manager->FindInQueue(request, found, isRunning);
        EXPECT_FALSE(found) << "it must have left the queue";
    }

    // A completion that never comes: the request stays, and a flush cancels it.
    m_decoder.arm({"IBlackmagicRawCallback::DecodeComplete", 1, Kind::drop});
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

TEST_F(ManagerTest, ManagerCanGoWhileJobsStillRun) {
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath);
    m_decoder.setJobDelay(50);
    m_decoder.arm({"IBlackmagicRaw::FlushJobs", 0, Kind::fail, E_FAIL});
    const auto request = makeRequest(*clip);
    EXPECT_EQ(m_manager->ProcessFrameSync(request), 1);
    m_manager.reset();
    EXPECT_TRUE(request->m_isCancelled);
    EXPECT_TRUE(request->m_isFinished) << "the codec ends its jobs before it goes";
    EXPECT_EQ(request->told, 1);
}

TEST_F(ManagerTest, RequestFailsWithTheCodeOfItsStage) {
    struct Case {
        const char* call;
        uint32_t occurrence;
        uint32_t code;
        const char* message;
    };
    const Case cases[] = {
        {"IBlackmagicRawClipEx::CreateJobReadFrame", 1, 5, "Impossible to Create Job Read Frame - "},
        {"IBlackmagicRawResourceManager::CreateResource", 1, 5, "Impossible to Create BitStream Resource - "},
        {"IBlackmagicRawJob::SetUserData", 1, 5, "Failed SetUserData on Read Job"},
        {"IBlackmagicRawCallback::ReadComplete", 1, 7, "Failed SetResourceFormat on Frame ! "},
        {"IBlackmagicRawFrame::SetResourceFormat", 1, 7, "Failed SetResourceFormat on Frame ! "},
        {"IBlackmagicRawFrame::SetResolutionScale", 1, 7, "Failed SetResolutionScale on Frame ! "},
        {"IBlackmagicRawManualDecoderFlow1::GetFrameStateSizeBytes", 1, 7,
         "Error populateFrameStateBuffer : Failed CPU GetFrameStateSizeBytes "},
        {"IBlackmagicRawResourceManager::CreateResource", 2, 7,
         "Error populateFrameStateBuffer : Failed Creating CPU Resource FrameState "},
        {"IBlackmagicRawManualDecoderFlow1::PopulateFrameStateBuffer", 1, 7,
         "Error populateFrameStateBuffer : Failed Populating FrameState Buffer "},
        {"IBlackmagicRawManualDecoderFlow1::GetDecodedSizeBytes", 1, 8,
         "Error createDecodeJob : Failed GetDecodedSizeBytes "},
        {"IBlackmagicRawResourceManager::CreateResource", 3, 8,
         "Error createDecodeJob : Failed Creating CPU Resource "},
        {"IBlackmagicRawManualDecoderFlow1::CreateJobDecode", 1, 8,
         "Error createDecodeJob : Failed Created Job Decode "},
        {"IBlackmagicRawJob::SetUserData", 2, 8, "Impossible to Set UserData on decodeJob !"},
        {"IBlackmagicRawJob::Submit", 2, 8, "Impossible to submit DecodeJob ! "},
        {"IBlackmagicRawCallback::DecodeComplete", 1, 8, "DecodeComplete called with error code - "},
        {"IBlackmagicRawManualDecoderFlow1::GetProcessedSizeBytes", 1, 10,
         "Error CreateProcess Job : Failed GetProcessedSizeBytes "},
        {"IBlackmagicRawResourceManager::CreateResource", 4, 10,
         "Error CreateProcess Job : Failed Creating CPU ProcessedBuffer Resource "},
        {"IBlackmagicRawManualDecoderFlow1::CreateJobProcess", 1, 10,
         "Error CreateProcess Job : Failed Creating CPU Process Job"},
        {"IBlackmagicRawJob::SetUserData", 3, 10, "Impossible to Set UserData on processJob ! "},
        {"IBlackmagicRawJob::Submit", 3, 10, "Impossible to Submit processJob ! "},
        {"IBlackmagicRawCallback::ProcessComplete", 1, 10, "ProcessComplete called with error code - "},
        {"IBlackmagicRawProcessedImage::GetResourceType", 1, 12, "Impossible to GetResourceType ! "},
        {"IBlackmagicRawProcessedImage::GetResourceFormat", 1, 12, "Failed GetResourceFormat - "},
        {"IBlackmagicRawProcessedImage::GetWidth", 1, 12, "Failed GetWidth - "},
        {"IBlackmagicRawProcessedImage::GetHeight", 1, 12, "Failed GetHeight - "},
        {"IBlackmagicRawProcessedImage::GetResourceSizeBytes", 1, 12, "Failed GetResourceSizeBytes - "},
    };
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath);
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.call) + " " + std::to_string(c.occurrence));
        m_decoder.reset();
        m_decoder.arm({c.call, c.occurrence, Kind::fail, E_ACCESSDENIED});
        const auto request = makeRequest(*clip, brPixelFormat::BGRA_8_LOW, 4); // with a buffer of its own
        EXPECT_EQ(m_manager->ProcessFrameSync(request), 0);
        EXPECT_EQ(m_decoder.account().faultsFired, 1);
        EXPECT_EQ(request->m_errorCode, c.code);
        EXPECT_EQ(request->m_errorMessage,
                  "(" + std::to_string(c.code) + ") " + c.message + hresultText(E_ACCESSDENIED));
        EXPECT_TRUE(request->m_isFinished && request->failed == 1 && request->told == 1 &&
                    !request->delivered);
    }
}

TEST_F(ManagerTest, RequestFailsWithoutWhatACompletionShouldBring) {
    struct Case {
        const char* call;
        Kind kind;
        int64_t value;
        uint32_t code;
        const char* message;
    };
    const Case cases[] = {
        {"IBlackmagicRawJob::Submit", Kind::fail, E_FAIL, 5, "Failed to Submit Read Job"},
        {"IBlackmagicRawCallback::ReadComplete", Kind::succeedEmpty, 0, 6,
         "ReadComplete called with error code - "},
        {"IBlackmagicRawCallback::ProcessComplete", Kind::succeedEmpty, 0, 12,
         "ProcessComplete called without an image"},
        {"IBlackmagicRawProcessedImage::GetResourceFormat", Kind::value, blackmagicRawResourceFormatRGBAU8,
         12, "Final Format is not the same than requested one !"},
        {"IBlackmagicRawProcessedImage::GetResourceType", Kind::value, blackmagicRawResourceTypeBufferCUDA,
         12, "Final Resource Type is not the same than requested one !"},
    };
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath);
    for (const Case& c : cases) {
        m_decoder.reset();
        m_decoder.arm({c.call, 1, c.kind, c.value});
        const auto request = makeRequest(*clip);
        m_manager->ProcessFrameSync(request);
        EXPECT_EQ(request->m_errorMessage, "(" + std::to_string(c.code) + ") " + c.message);
        EXPECT_EQ(request->told, 1);
    }
    m_decoder.reset();
    m_decoder.arm({"IBlackmagicRawClipEx::GetBitStreamSizeBytes", 1, Kind::fail, E_FAIL});
    m_request = makeRequest(*clip);
    m_manager->ProcessFrameSync(m_request);
    EXPECT_EQ(m_request->m_errorMessage, "(1) Frame seems to be corrupted");
    m_decoder.arm({"IBlackmagicRawClipEx::GetBitStreamSizeBytes", 0, Kind::fail, E_ACCESSDENIED});
    m_request = makeRequest(*clip);
    m_manager->ProcessFrameSync(m_request);
    EXPECT_EQ(m_request->m_errorMessage, "(1) Frame seems to be corrupted - " + hresultText(E_ACCESSDENIED));
}

TEST_F(ManagerTest, CancelledRequestEndsAtItsNextCompletion) {
    ASSERT_EQ(init(), 0);
    const auto clip = addClip(m_clipPath);
    m_decoder.setJobDelay(30);
    m_request = makeRequest(*clip);
    ASSERT_EQ(m_manager->AddProcessFrameAsync(m_request), 0);
    {
        vdLock lock(m_request->m_mutex, "test");
        m_request->m_isCancelled = true;
    }
    m_manager->FlushQueue();
    EXPECT_TRUE(m_request->m_isFinished && m_request->failed == 1 && m_request->told == 1);
    EXPECT_EQ(m_request->m_errorCode, 0u);
    EXPECT_EQ(m_decoder.account().jobsSubmitted, 1) << "no further job after the cancellation";
}

} // namespace
