// What a worker may do, and what the shell sees of it: one thumbnail less, and nothing else.
#include "GuardFixture.h"

#include <sstream>

#include "FreshProcess.h"
#include "GuardFailures.h"
#include "Imports.h"
#include "KillerClips.h"
#include "Transport.h"

namespace {

TEST_F(GuardTest, WhatTheHandlerSaysIsPassedOn) {
    EXPECT_RESULT(E_FAIL, resultOf(std::wstring(32768, L'a')));
    EXPECT_EQ(0u, childProcesses(workerName).size()) << "no question has room for such a path";
    for (const UINT size : {2u, 64u, 500u, 3000u, 3u}) {
        expectPicture(size);
        EXPECT_EQ(size == 3000 ? 0u : 1u, childProcesses(workerName).size())
            << "kept after small pictures alone";
    }
    EXPECT_RESULT(static_cast<HRESULT>(0x80041234), resultOf(L"refused"));
    EXPECT_RESULT(GUARD_E_PICTURE_TOO_LARGE, ask(L"good", 17000).result);
    EXPECT_RESULT(E_OUTOFMEMORY, ask(L"good", 0).result) << "as GDI told the handler";
    expectPicture();
    EXPECT_TRUE(workersBecome(1));
}

TEST_F(GuardTest, AHangEndsWithItsTime) {
    setPolicy(L"WorkerSeconds", 1);
    const ThumbnailAnswer answer = ask(L"hang");
    EXPECT_RESULT(GUARD_E_WORKER_TIMED_OUT, answer.result);
    EXPECT_LE(990, answer.milliseconds);
    EXPECT_EQ(0u, childProcesses(workerName).size()) << "it was waited for: the clip must be free again";
    EXPECT_RESULT(GUARD_E_CLIP_KILLS, resultOf(L"hang"));

    // Before the question was seen: no clip's fault.
    m_library->call("DllCanUnloadNow"); // a new worker is wanted
    writeFileBytes(inside(L"hang in DllMain"), "");
    for (int i = 0; i < 2; ++i)
        EXPECT_RESULT(GUARD_E_WORKER_TIMED_OUT, resultOf(L"good"));
    EXPECT_RESULT(GUARD_E_PAUSE, resultOf(L"good")) << "but the third death in a row";
}

TEST_F(GuardTest, AWorkerThatWouldHangWithTheNextQuestionLeaves) {
    expectPicture();
    EXPECT_RESULT(S_OK, resultOf(L"stuck"));
    expectPicture();
    EXPECT_TRUE(workersBecome(1)) << "the other one";
}

TEST_F(GuardTest, AKillerIsAskedAgainOnceItHasChanged) {
    writeFileBytes(inside(L"abort"), "x");
    EXPECT_RESULT(GUARD_E_WORKER_DIED, resultOf(L"abort"));
    EXPECT_RESULT(GUARD_E_CLIP_KILLS, resultOf(L"abort"));
    EXPECT_TRUE(workersBecome(1)) << "it looked at the clip, and is ready for others";
    writeFileBytes(inside(L"abort"), "xx");
    EXPECT_RESULT(GUARD_E_WORKER_DIED, resultOf(L"abort")) << "another size";
    expectPicture();
    const HANDLE file =
        CreateFileW(inside(L"abort").c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    constexpr FILETIME someday = {1, 2};
    SetFileTime(file, nullptr, nullptr, &someday);
    CloseHandle(file);
    EXPECT_RESULT(GUARD_E_WORKER_DIED, resultOf(L"abort")) << "another time";
    EXPECT_RESULT(GUARD_E_CLIP_KILLS, resultOf(L"abort"));
    setPolicy(L"KillerMinutes", 0);
    EXPECT_RESULT(GUARD_E_WORKER_DIED, resultOf(L"exit"));
    expectPicture();
    EXPECT_RESULT(GUARD_E_WORKER_DIED, resultOf(L"exit")) << "not remembered";
}

TEST_F(GuardTest, ThreeDeathsInARowAreThePause) {
    setPolicy(L"PauseSeconds", 2);
    for (const wchar_t* clip : {L"abort 1", L"abort 2"})
        EXPECT_RESULT(GUARD_E_WORKER_DIED, resultOf(clip));
    expectPicture(); // not in a row
    for (const wchar_t* clip : {L"abort 3", L"abort 4", L"abort 5"})
        EXPECT_RESULT(GUARD_E_WORKER_DIED, resultOf(clip));
    EXPECT_RESULT(GUARD_E_PAUSE, resultOf(L"good"));
    EXPECT_EQ(0u, childProcesses(workerName).size());
    Sleep(2050);
    expectPicture();
}

TEST(KillerClipsTest, MoreThanAreRememberedDriveOutTheOldest) {
    static KillerClips killers;
    for (int i = 0; i < 66; ++i) {
        killers.killed(L"clip " + std::to_wstring(i), i == 65 ? 0 : 7);
        killers.answered();
        Sleep(i < 3 ? 20 : 0); // older than the clock's steps
    }
    for (int i = 0; i < 3; ++i) // several threads may have asked for one clip at once: no reason for a pause
        killers.killed(L"clip 2", 7);
    constexpr struct {
        const wchar_t* clip;
        HRESULT result;
        uint64_t killerState;
    } cases[] = {{L"clip 65", GUARD_E_CLIP_KILLS, 0}, // nobody saw its state
                 {L"clip 2", S_OK, 7},
                 {L"clip 0", S_OK, 0},
                 {L"clip 1", S_OK, 0}};
    for (const auto& [clip, result, expectedState] : cases) {
        uint64_t state = 1;
        EXPECT_RESULT(result, killers.refusal(clip, state));
        EXPECT_EQ(expectedState, state);
    }
}

TEST_F(GuardTest, WithoutItsPartsItFailsAndNeverDecodesItself) {
    const struct {
        const wchar_t* file;
        const char* content; ///< null: not there
        HRESULT result;
    } cases[] = {
        {workerName, nullptr, GUARD_E_WORKER_MISSING},
        {workerName, "This is not a program.", GUARD_E_WORKER_NOT_STARTED},
        {L"Clipforge_Thumbnails.dll", nullptr, GUARD_E_HANDLER_MISSING},
        {L"Clipforge_Thumbnails.dll", "This is not a library.", GUARD_E_HANDLER_NOT_LOADED},
    };
    for (const auto& [file, content, result] : cases) {
        SCOPED_TRACE(Result{result});
        const std::string good = readFileBytes(inside(file));
        std::filesystem::remove(inside(file));
        if (content != nullptr)
            writeFileBytes(inside(file), content);
        for (int i = 0; i < 4; ++i) // no death, and so no pause
            EXPECT_RESULT(result, resultOf(L"good"));
        EXPECT_TRUE(workersBecome(0));
        writeFileBytes(inside(file), good);
        expectPicture();
        m_library->call("DllCanUnloadNow"); // the files are in use otherwise
        EXPECT_TRUE(workersBecome(0));
    }
    EXPECT_EQ(nullptr, GetModuleHandleW(L"Clipforge_Thumbnails.dll"));
}

TEST_F(GuardTest, AsManyWorkersAsThereMayBe) {
    setPolicy(L"Workers", 3);
    std::atomic<size_t> most = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            EXPECT_RESULT(S_OK, resultOf(L"slow"));
            const size_t now = childProcesses(workerName).size();
            for (size_t known = most; known < now && !most.compare_exchange_weak(known, now);)
                ;
        });
    threads.clear();
    EXPECT_EQ(3u, most);

    setPolicy(L"Workers", 1); // while three are idle: from now on one alone may work
    const ULONGLONG start = GetTickCount64();
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] { EXPECT_RESULT(S_OK, resultOf(L"slow")); });
    threads.clear();
    EXPECT_LE(870u, GetTickCount64() - start) << "300 ms each";
}

TEST_F(GuardTest, IdleWorkersGoAndOthersCome) {
    setPolicy(L"WorkerIdleSeconds", 1);
    const ULONGLONG start = GetTickCount64();
    expectPicture();
    EXPECT_TRUE(workersBecome(0));
    EXPECT_LE(990u, GetTickCount64() - start);
    expectPicture();
    // Ended by somebody while it was idle: nobody's fault, and nobody notices.
    for (const DWORD worker : childProcesses(workerName)) {
        const HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, worker);
        TerminateProcess(process, 1);
        WaitForSingleObject(process, INFINITE);
        CloseHandle(process);
    }
    expectPicture();
}

TEST_F(GuardTest, AnObjectKeepsTheLibraryAndItsWorkers) {
    Microsoft::WRL::ComPtr<IUnknown> object;
    ASSERT_EQ(S_OK, m_library->createHandler(IID_IUnknown, reinterpret_cast<void**>(object.GetAddressOf())));
    expectPicture();
    EXPECT_EQ(S_FALSE, m_library->call("DllCanUnloadNow"));
    EXPECT_EQ(1u, childProcesses(workerName).size());
}

/// The host of two workers that never answer, until somebody ends it. Without jobs, when the environment
/// says.
TEST_F(GuardTest, DISABLED_HostToBeKilled) {
    const HMODULE guard = GetModuleHandleW(L"Clipforge_Guard.dll");
    if (GetEnvironmentVariableW(L"CLIPFORGE_WITHOUT_JOBS", nullptr, 0) != 0)
        setImport(importSlot(guard, "CreateJobObjectW"),
                  reinterpret_cast<void*>(static_cast<HANDLE(WINAPI*)(LPSECURITY_ATTRIBUTES, LPCWSTR)>(
                      [](LPSECURITY_ATTRIBUTES, LPCWSTR) -> HANDLE { return nullptr; })));
    setPolicy(L"Workers", 2);
    writeFileBytes(inside(L"hang in DllMain"), "");
    std::thread other([&] { ask(L"hang"); });
    std::filesystem::remove(inside(L"hang in DllMain"));
    ask(L"hang too");
    other.join();
}

TEST_F(GuardTest, WorkersGoWithTheHost) {
    for (const wchar_t* withoutJobs : {static_cast<const wchar_t*>(nullptr), L"1"}) {
        SetEnvironmentVariableW(L"CLIPFORGE_WITHOUT_JOBS", withoutJobs);
        const ChildProcess host = startFreshProcess("GuardTest.DISABLED_HostToBeKilled");
        EXPECT_TRUE(workersBecome(2, 60000, host.id()));
        Sleep(200); // they load the handler, or hang already
        host.terminate();
        EXPECT_TRUE(workersBecome(0, 5000, host.id())) << (withoutJobs ? "no jobs" : "jobs");
    }
}

TEST_F(GuardTest, AWorkerOfAnotherVersionKnowsIt) {
    const std::wstring ours = workerArguments({});
    EXPECT_TRUE(parseWorkerArguments(ours.c_str()));
    std::wistringstream theirs(L"9" + ours);
    const ChildProcess worker(inside(workerName), {std::istream_iterator<std::wstring, wchar_t>(theirs), {}});
    EXPECT_TRUE(worker.hasEnded(30000));
    EXPECT_EQ(workerOfOtherVersion, worker.exitCode());
}

class LiesTest : public GuardTest {
protected:
    void SetUp() override {
        GuardTest::SetUp();
        install(L"guard-lies", workerName);
        setPolicy(L"PauseSeconds", 0);
        setPolicy(L"KillerMinutes", 0);
        setPolicy(L"WorkerSeconds", 1);
    }
    void tell(const char* lie) {
        m_library->call("DllCanUnloadNow");
        writeFileBytes(inside(L"lie"), lie);
    }
};

TEST_F(LiesTest, EachHasItsResult) {
    const struct {
        const char* lie;
        HRESULT result;
    } cases[] = {
        {"honest", S_OK},
        {"no answer", GUARD_E_WORKER_LIED},
        {"outcome", GUARD_E_WORKER_LIED},
        {"not asked", GUARD_E_WORKER_LIED},
        {"success without a picture", GUARD_E_WORKER_LIED},
        {"alpha", GUARD_E_WORKER_LIED},
        {"no rows", GUARD_E_WORKER_LIED},
        {"no columns", GUARD_E_WORKER_LIED},
        {"too many rows", GUARD_E_WORKER_LIED},
        {"more than the section", GUARD_E_WORKER_LIED},
        {"0 bytes in 32 bits", GUARD_E_WORKER_LIED},
        {"never committed", S_OK}, // zeros, and no fault
        {"leaves", GUARD_E_WORKER_NOT_STARTED},
        {"other version", GUARD_E_WORKER_VERSION},
        {"silent", GUARD_E_WORKER_TIMED_OUT},
    };
    for (const auto& [lie, result] : cases) {
        SCOPED_TRACE(lie);
        tell(lie);
        EXPECT_RESULT(result, resultOf(L"clip"));
        EXPECT_TRUE(workersBecome(result == S_OK ? 1 : 0, 1000));
    }
}
} // namespace
