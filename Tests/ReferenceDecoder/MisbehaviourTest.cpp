// Ways of ending and stopping a process, and how they are asked for from outside of it.
#include "DecoderFixture.h"
#include "EnvironmentVariable.h"
#include "FreshProcess.h"

using MisbehaviourTest = DecoderTest;
using Kind = ReferenceDecoderFaultKind;

namespace {
constexpr char inChild[] = "MisbehaviourChild.DISABLED_DecodesAFrame";

/// Ends the process by the exception that nobody handled, before a debugger is looked for.
LONG WINAPI endBy(EXCEPTION_POINTERS* exception) {
    TerminateProcess(GetCurrentProcess(), exception->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}
} // namespace

TEST(MisbehaviourChild, DISABLED_DecodesAFrame) {
    SetUnhandledExceptionFilter(endBy);
    TemporaryFolder folder;
    const auto path = folder.path() / "child.braw";
    writeTestClip(path, TestClip{});
    Decoder decoder;
    ComPtr<IBlackmagicRawClip> clip;
    Request request;
    ok(decoder.open(path, &clip));
    ok(decoder.decode(clip.Get(), request));
}

// Faults: a way to die of that the process survives, or of another kind than its name; a fault that does not
// reach the process it is meant for, or is not seen here.
TEST_F(MisbehaviourTest, AChildProcessDiesAsArmedHere) {
    const EnvironmentVariable restored(referenceDecoderBlockVariable, nullptr);
    m_session.shareWithChildProcesses();
    const struct {
        Kind kind;
        DWORD exitCode;
        int64_t value = 0;
    } cases[] = {{Kind::nullWrite, STATUS_ACCESS_VIOLATION},
                 {Kind::stackOverflow, STATUS_STACK_OVERFLOW},
                 {Kind::abort, 3},
                 {Kind::failFast, 0xC0000409},
                 {Kind::terminate, 77, 77},
                 {Kind::exceptionOnThread, 0xE0000001},
                 {Kind::hang, STILL_ACTIVE},
                 {Kind::eatMemory, 0, 48}};
    for (const char* const call :
         {"IBlackmagicRaw::OpenClipWithGeometry", "IBlackmagicRawCallback::DecodeComplete"})
        for (const auto& death : cases) {
            m_session.reset();
            m_session.arm({call, 1, death.kind, death.value});
            EXPECT_EQ(exitCodeOfFreshProcess(inChild, death.kind == Kind::hang ? 2000 : 60000),
                      death.exitCode)
                << call << ", kind " << static_cast<uint32_t>(death.kind);
            EXPECT_EQ(m_session.account().faultsFired, 1);
            m_session.writeOffLosses();
        }
}

// Faults: settings misread; a mistyped one that passes for none.
TEST_F(MisbehaviourTest, TheEnvironmentSetsAndAWrongWordIsNoticed) {
    const struct {
        const wchar_t* words;
        DWORD exitCode;
    } cases[] = {{L"", 0},
                 {L"changingThreads,,jobDelay=1,buffersNeedMore", 0},
                 {L"lateCompletions,terminate@IBlackmagicRawCallback::ReadComplete=0x4D", 77},
                 {L"terminate@IBlackmagicRawFactory::CreateCodec#2=77", 0},
                 {L"changingThread", 2},
                 {L"jobDelay=1s", 2},
                 {L"vanish@IBlackmagicRaw::FlushJobs", 2}};
    for (const auto& [words, exitCode] : cases) {
        const EnvironmentVariable set(L"REFERENCE_DECODER", words);
        EXPECT_EQ(exitCodeOfFreshProcess(inChild), exitCode) << std::filesystem::path(words);
    }
}
