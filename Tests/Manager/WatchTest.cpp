// A test that hangs is ended within its own time, by its name.
#include "DecodeCoreFixture.h"
#include "EnvironmentVariable.h"
#include "ProgramRun.h"

namespace {
using WatchProcess = DecodeCoreTest;

TEST_F(WatchProcess, DISABLED_HangsInTheDecoder) {
    arm("Clip::GetWidth", 1, Kind::delay, 600'000);
    init();
    addClip(m_clipPath);
}

TEST(WatchTest, HangingTestIsNamedAndEnded) {
    const EnvironmentVariable seconds(L"CLIPFORGE_TEST_SECONDS", L"3");
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const ProgramRun run = runProgram(
        program,
        {L"--gtest_also_run_disabled_tests", L"--gtest_filter=WatchProcess.DISABLED_HangsInTheDecoder"},
        30'000);
    EXPECT_EQ(run.exitCode, 4u);
    EXPECT_NE(run.output.find(
                  "[  HANGS   ] WatchProcess.DISABLED_HangsInTheDecoder: no end within 2 s; the decoder's "
                  "latest call: IBlackmagicRawClip::GetWidth\n"),
              std::string::npos)
        << run.output;
}
} // namespace
