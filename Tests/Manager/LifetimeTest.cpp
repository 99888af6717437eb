// Who outlives whom: the decoder may own its objects in any order, keep its callback or borrow it, and end
// its jobs when it likes. And who may end a request, how often, and with which lock.
#include "DecodeCoreFixture.h"

#include "FreshProcess.h"
#include "LogSession.h"
#include "Utils/vdResult.h"

namespace {

using Manners = ReferenceDecoderManners;

class LifetimeTest : public DecodeCoreTest {
protected:
    /// Returns once the decoder has called that completion, whose work does not begin for a while.
    void holdAt(const std::string& completion) {
        while (m_decoder.occurrencesOf("IBlackmagicRawCallback::" + completion) == 0)
            Sleep(1);
    }
};

TEST_F(LifetimeTest, FlushThatDoesNotFlushIsNotTrusted) {
    for (const Kind kind : {Kind::fail, Kind::succeedEmpty}) {
        m_request = makeRequest(*start());
        const LogSession log(vdLogLevel::error);
        arm("::FlushJobs", 1, kind);
        m_decoder.setJobDelay(400); // it is waited for
        ASSERT_EQ(m_manager->AddProcessFrameAsync(m_request), 0);
        m_manager->Release();
        EXPECT_TRUE(m_request->m_isCancelled);
        EXPECT_EQ(m_decoder.account().jobsSubmitted, 1) << "no further job after the cancellation";
        EXPECT_NE(log.lines().front().find("Release|"), std::string::npos) << log.lines().front();
        EXPECT_EQ(log.lines().back().find("Release|FlushJobs never worked : ") != std::string::npos,
                  kind == Kind::succeedEmpty);
    }
}

TEST_F(LifetimeTest, DISABLED_JobThatOutlastsTheManager) {
    const LogSession log(vdLogLevel::error);
    arm("::FlushJobs", 0);
    m_decoder.setManners(Manners::lastReleaseDoesNotWait | Manners::callbackIsNotCounted);
    m_decoder.setJobDelay(3000);
    auto request = makeRequest(*start());
    const std::weak_ptr<TestRequest> watched = request;
    m_manager->ProcessFrameSync(std::exchange(request, nullptr));
    EXPECT_EQ(m_manager->initFromFramework(blackmagicRawPipelineCPU, false), 0);
    IBlackmagicRawFactory* const factory = m_manager->m_instance->factory;
    factory->AddRef();
    m_manager->Release(); // of the next codec, which has no jobs
    m_manager.reset();
    EXPECT_FALSE(watched.expired()) << "its job is still running";
    EXPECT_EQ(factory->Release(), 1u) << "and may use what the library gave";
    EXPECT_GT(m_decoder.account().liveResources, 0);
    EXPECT_TRUE(std::ranges::any_of(log.lines(), [](const std::string& line) {
        return line.find("initFromFramework|A job does not end") != std::string::npos;
    }));
    for (int i = 0; i < 500 && !watched.expired(); ++i)
        Sleep(10);
    EXPECT_TRUE(watched.expired()) << "it has ended, and so has the request's last user";
    EXPECT_TRUE(m_decoder.account().isSound());

    arm("none"); // and the next manager is as good as any
    m_request = makeRequest(*start());
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0);
    EXPECT_EQ(m_request->m_errorMessage, "");
    m_request.reset();
    m_manager.reset();
    m_decoder.writeOffLosses(); // what is left is left on purpose
}

TEST_F(LifetimeTest, JobThatOutlastsTheManagerKeepsWhatItUses) {
    runInFreshProcess("LifetimeTest.DISABLED_JobThatOutlastsTheManager");
}

TEST_F(LifetimeTest, BuffersAndClipsOfAHostOutliveTheManager) {
    m_decoder.setManners(Manners::resourceManagerHoldsCodec);
    for (const bool isGpu : {false, true}) {
        auto clip = start(isGpu);
        m_request = makeRequest(*clip, brPixelFormat::BGRA_8_LOW, 4);
        EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0);
        m_manager.reset();
        EXPECT_FALSE(m_decoder.account().isBalanced()) << "the request has its buffers";
        m_request.reset();
        const ReferenceDecoderAccount account = m_decoder.account();
        EXPECT_TRUE(account.isBalanced() && account.isSound())
            << "the clip keeps nothing of the library's, and the buffers all that they need: "
            << account.describe();
    }
}

TEST_F(LifetimeTest, CallbackCountsAsComDoes) {
    auto* const callback = new vdBRAW_Manager_Callback;
    void* result = callback;
    EXPECT_EQ(callback->QueryInterface(__uuidof(IBlackmagicRawClipEx), &result), E_NOTIMPL);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(callback->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
    ULONG expected = 1;
    for (const IID& identifier : {IID_IUnknown, __uuidof(IBlackmagicRawCallback)}) {
        EXPECT_EQ(callback->QueryInterface(identifier, &result), S_OK);
        EXPECT_EQ(result, callback);
        EXPECT_EQ(callback->references(), ++expected);
    }
    EXPECT_EQ(callback->AddRef(), 4u);
    for (ULONG left = 4; left-- > 1;)
        EXPECT_EQ(callback->Release(), left);

    // A trim job carries what it tells of its progress, and goes when it is complete.
    const auto clip = start();
    uint32_t bytes = 0;
    clip->m_bmClipEx->GetBitStreamSizeBytes(0, &bytes);
    std::vector<char> buffer(bytes);
    IBlackmagicRawJob* job = nullptr;
    ASSERT_EQ(clip->m_bmClipEx->CreateJobReadFrame(0, buffer.data(), bytes, &job), S_OK);
    callback->TrimProgress(job, 0.25f); // carries nothing
    float told = 0;
    brTrimContext context{.progress = [&](float percent) { told = percent; }};
    job->SetUserData(&context);
    callback->TrimProgress(job, 0.25f);
    EXPECT_EQ(told, 25);
    callback->TrimComplete(job, E_ABORT);
    EXPECT_EQ(context.result, E_ABORT);
    EXPECT_EQ(callback->Release(), 0u);
}

TEST_F(LifetimeTest, CallbackThatIsNotGivenBackIsKept) {
    start();
    m_manager->createBufferManager()->m_session->callback()->AddRef(); // as a library that never lets go of
                                                                       // it
    const LogSession log(vdLogLevel::error);
    IBlackmagicRawFactory* const factory = m_manager->m_instance->factory;
    factory->AddRef();
    m_manager.reset();
    EXPECT_EQ(factory->Release(), 1u);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("The decoder library still holds the callback"), std::string::npos);
    m_decoder.writeOffLosses(); // what is left is left on purpose
}

TEST_F(LifetimeTest, RequestOutlivesItsCompletionWhoeverDropsIt) {
    start();
    auto request = makeRequest(*m_manager->GetClip(0));
    const std::weak_ptr<TestRequest> watched = request;
    bool isThere = false;
    request->m_listener = [&](vdBRAW_Request&) {
        std::shared_ptr<vdBRAW_Request> found;
        bool isRunning = true;
        m_manager->FindInQueue(std::exchange(request, nullptr), found, isRunning);
        EXPECT_TRUE(found && !isRunning);
        found.reset();
        isThere = !watched.expired();
    };
    m_decoder.setJobDelay(30); // so that it is in the queue before it ends
    EXPECT_EQ(m_manager->AddProcessFrameAsync(request), 0);
    m_manager->FlushQueue();
    EXPECT_TRUE(isThere) << "its last completion was still at work on it";
    EXPECT_TRUE(watched.expired());

    m_request = makeRequest(*m_manager->GetClip(0));
    m_request->m_listener = [this](vdBRAW_Request&) {
        std::shared_ptr<vdBRAW_Request> found;
        bool isRunning = true;
        m_manager->FindInQueue(m_request, found, isRunning);
    };
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 1) << "somebody else took it out of the queue";
}

TEST_F(LifetimeTest, EndsOnceWhateverComesAfterIt) {
    start();
    for (const Kind kind : {Kind::fail, Kind::succeedEmpty})
        for (const bool isCancelled : {false, true}) {
            arm("Callback::ReadComplete", 1, kind);
            m_decoder.setJobDelay(20);
            const auto request = makeRequest(*m_manager->GetClip(0));
            ASSERT_EQ(m_manager->AddProcessFrameAsync(request), 0);
            request->m_mutex.lock();
            request->m_isCancelled = isCancelled;
            request->failAndUnlock(brErrorDelivery, S_OK, "first");
            std::shared_ptr<vdBRAW_Request> found;
            bool isRunning = true;
            m_manager->FindInQueue(request, found, isRunning);
            EXPECT_TRUE(found && !isRunning);
            const bool isInUse = request->m_clipInUse != nullptr; // by its job, unless that is back already
            EXPECT_TRUE(isInUse || m_decoder.occurrencesOf("IBlackmagicRawCallback::ReadComplete") > 0);
            EXPECT_EQ(m_manager->FlushQueue(), 0);
            EXPECT_EQ(request->m_errorMessage, "(12) first");
            EXPECT_TRUE(request->failed == 1 && request->told == 1);
        }
}

TEST_F(LifetimeTest, CancelledBeforeEachCompletion) {
    start();
    int64_t jobs = 0;
    for (const char* completion : {"ReadComplete", "DecodeComplete", "ProcessComplete"}) {
        SCOPED_TRACE(completion);
        arm("Callback::" + std::string(completion), 1, Kind::delay, 100);
        m_request = makeRequest(*m_manager->GetClip(0));
        ASSERT_EQ(m_manager->AddProcessFrameAsync(m_request), 0);
        holdAt(completion);
        m_manager->CloseClip(m_manager->GetClip(0));
        EXPECT_TRUE(m_request->m_clipInUse) << "by the job, whatever it keeps itself";
        {
            vdLock lock(m_request->m_mutex, "test");
            m_request->m_isCancelled = true;
        }
        EXPECT_EQ(m_manager->FlushQueue(), 0);
        EXPECT_TRUE(m_request->m_isFinished && m_request->failed == 1 && m_request->told == 1);
        EXPECT_TRUE(m_request->m_errorCode == 0 && m_request->delivered == 0);
        EXPECT_EQ(m_decoder.account().jobsSubmitted, ++jobs) << "no further job after the cancellation";
        EXPECT_EQ(m_request.use_count(), 1) << "neither queue nor job keeps it";
        EXPECT_TRUE(isFree(m_clipPath)) << "nor it the clip";
        addClip(m_clipPath);
    }
}

TEST_F(LifetimeTest, HookEndsARequestWithItsFrame) {
    m_request = makeRequest(*start());
    m_request->hook = 2; // 1 alone ends it
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0);
    EXPECT_EQ(m_request->delivered, 1);
    m_decoder.reset();
    m_request = makeRequest(*m_manager->GetClip(0));
    m_request->m_listener = [](vdBRAW_Request&) { throw std::bad_alloc(); };
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0) << "whoever listens harms itself alone";
    m_decoder.reset();
    m_request = makeRequest(*m_manager->GetClip(0));
    m_request->hook = 1;
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0);
    EXPECT_TRUE(m_request->m_isFinished && m_request->told == 1);
    EXPECT_FALSE(m_request->m_errorCode || m_request->delivered || m_request->failed);
    EXPECT_EQ(m_decoder.account().jobsSubmitted, 1);
}

TEST_F(LifetimeTest, FailedDeliveryIsToldOnceWithoutTheLock) {
    start();
    m_request = makeRequest(*m_manager->GetClip(0));
    m_request->delivery = vdFailure("no room");
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 0);
    EXPECT_EQ(m_request->m_errorMessage, "(12) no room");
    m_request->m_isEnabled = false; // answered by its submitter
    m_manager->AddProcessFrameAsync(m_request);
    EXPECT_TRUE(m_request->delivered == 2 && m_request->failed == 2 && m_request->told == 2);
    EXPECT_EQ(m_manager->FlushQueue(), 0);
}

TEST_F(LifetimeTest, ReplacedCodecTakesItsWorkWithIt) {
    const auto clip = start();
    const auto prepared = makeRequest(*clip);
    for (const uint32_t failingFlush : {99u, 1u, 0u}) {
        SCOPED_TRACE(failingFlush);
        arm("::FlushJobs", failingFlush);
        m_decoder.setJobDelay(30);
        m_request = makeRequest(*clip);
        ASSERT_EQ(m_manager->AddProcessFrameAsync(m_request), 0);
        EXPECT_EQ(m_manager->initFromFramework(blackmagicRawPipelineCPU, false), 0);
        EXPECT_TRUE(m_request->m_isFinished && m_request->told == 1);
        EXPECT_EQ(m_request->m_isCancelled, failingFlush != 99);
        EXPECT_TRUE(m_request->m_isCancelled || m_request.use_count() == 1) << "still queued";
        EXPECT_TRUE(clip->m_isOpened);
        m_decoder.disarm();
        const auto next = makeRequest(*clip);
        EXPECT_EQ(m_manager->ProcessFrameSync(next), 0);
        EXPECT_EQ(next->m_errorMessage, "");
    }
    EXPECT_EQ(m_manager->AddProcessFrameAsync(prepared), E_FAIL);
    EXPECT_EQ(prepared->m_errorMessage, "(5) The Request was not prepared for the current Codec");
    EXPECT_EQ(m_manager->FlushQueue(), 0);
}

TEST_F(LifetimeTest, WithoutACodecNothingIsOpenedOrSubmitted) {
    const auto clip = start();
    m_request = makeRequest(*clip);
    arm("Factory::CreateCodec");
    EXPECT_EQ(m_manager->initFromFramework(blackmagicRawPipelineCPU, false), 1);
    uint64_t id = 0;
    EXPECT_EQ(m_manager->AddClip(m_clipPath, id), 1);
    EXPECT_EQ(m_manager->AddClipIfNew(m_clipPath, id), 0);
    EXPECT_FALSE(clip->m_bmClip) << "it is known, but nobody can open it";
    EXPECT_EQ(m_manager->ProcessFrameSync(m_request), 1);
    EXPECT_EQ(m_manager->AddProcessFrameAsync(m_request), E_FAIL);
    EXPECT_EQ(m_manager->initFromFramework(blackmagicRawPipelineCPU, false), 0);
    EXPECT_EQ(m_manager->AddClipIfNew(m_clipPath, id), 0);
    const auto good = makeRequest(*clip);
    EXPECT_EQ(m_manager->ProcessFrameSync(good), 0);
    EXPECT_EQ(good->m_errorMessage, "");
    m_manager->Release();
    EXPECT_EQ(m_manager->AddClip(m_clipPath, id), 1);
    EXPECT_EQ(m_manager->AddProcessFrameAsync(good), E_FAIL);
    EXPECT_EQ(vdBRAW_Manager().initFromFramework(blackmagicRawPipelineCPU, false), 1);
}

TEST_F(LifetimeTest, TwoThreadsOnOneManager) {
    start();
    const std::string own[] = {writeClip("a.braw", {64, 48}), writeClip("b.braw", {80, 16})};
    std::atomic<int> wrong{0};
    std::thread threads[2];
    for (int i = 0; i < 2; ++i)
        threads[i] = std::thread([&, i] {
            for (int round = 0; round < 30; ++round)
                for (const std::string& path : {own[i], m_clipPath}) {
                    const auto clip = addClip(path);
                    const auto request = makeRequest(*clip);
                    request->cloneProcessingAttributes(*clip);
                    m_manager->ProcessFrameSync(request);
                    const bool isShared = path == m_clipPath; // which the other may have closed meanwhile
                    const TestClip picture{clip->m_width, clip->m_height};
                    const auto last = expectedPixel(picture, 1, clip->m_width - 1, clip->m_height - 1);
                    wrong += request->m_errorCode == 0
                                 ? !std::equal(last.begin(), last.end(), request->pixels.end() - 4)
                                 : !isShared;
                    if (isShared)
                        m_manager->CloseClip(clip);
                }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(m_manager->FlushQueue(), 0);
}

} // namespace
