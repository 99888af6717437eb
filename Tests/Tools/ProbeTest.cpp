// The first meeting with a library that lies, crashes or hangs: whatever it does, the call is named.
#include <map>

#include "BuiltFile.h"
#include "ChildProcess.h"
#include "Console.h"
#include "EnvironmentVariable.h"
#include "Imports.h"
#include "Probe.h"
#include "ProbeStages.h"
#include "Processes.h"
#include "ProgramRun.h"
#include "TemporaryFolder.h"
#include "TestClips.h"

namespace {
using probe::Segment;
using probe::Stage;

const std::filesystem::path kBinaries = builtFile("bin");

std::wstring windowsPath(std::filesystem::path path) {
    return path.make_preferred().wstring();
}

/// What a row says of a lie: how it is marked, and part of its text.
struct Lie {
    const wchar_t* setting; ///< KIND@CALL#OCCURRENCE=VALUE
    const wchar_t* call;    ///< where it first shows
    const wchar_t* finding;
};

class Probe : public testing::Test {
protected:
    Probe() { writeTestClip(m_request.clip, {640, 512}); }

    ProbeOutcome probeWith(const std::wstring& setting) {
        const EnvironmentVariable variable(L"REFERENCE_DECODER", setting.c_str());
        m_rows.clear();
        return probeLibrary(m_request, [this](const std::wstring& row) { m_rows.push_back(row); });
    }
    /// The trouble is this call's, and the row that tells it was given to the person.
    void expectNamed(const std::wstring& setting, const std::wstring& call, const std::wstring& finding) {
        const ProbeOutcome outcome = probeWith(setting);
        EXPECT_FALSE(outcome.isGood) << setting;
        EXPECT_TRUE(outcome.trouble.starts_with(call)) << setting << "\n" << outcome.trouble;
        EXPECT_NE(std::wstring::npos, outcome.trouble.find(finding)) << setting << "\n" << outcome.trouble;
        EXPECT_TRUE(std::ranges::any_of(m_rows, [&](const std::wstring& row) {
            return row.find(call) != std::wstring::npos && row.find(L"  ok  ") == std::wstring::npos;
        })) << setting;
        EXPECT_NE(L"", outcome.meaning);
        EXPECT_TRUE(outcome.advice.starts_with(L"Next: ")) << outcome.advice;
    }

    TemporaryFolder m_folder;
    ProbeRequest m_request{windowsPath(m_folder.path() / "clip.braw"),
                           windowsPath(kBinaries / "BlackmagicRawAPI.dll"),
                           windowsPath(m_folder.path() / "p.png"), 10'000};
    std::vector<std::wstring> m_rows;
};

TEST_F(Probe, AGoodLibraryGivesAPicture) {
    const ProbeOutcome outcome = probeWith(L"");
    EXPECT_TRUE(outcome.isGood) << outcome.trouble;
    EXPECT_EQ(probe::stages().size(), m_rows.size());
    EXPECT_TRUE(std::filesystem::exists(m_request.picture));
    EXPECT_NE(std::wstring::npos, outcome.advice.find(L"fit each other")) << outcome.advice;
    // Red grows to the right, green downwards: the sketch is darkest at the top left, brightest at the bottom
    // right.
    const size_t end = outcome.sketch.find_last_not_of(L"\n");
    EXPECT_TRUE(std::wstring_view(L" .:-").find(outcome.sketch[6]) != std::wstring::npos) << outcome.sketch;
    EXPECT_TRUE(std::wstring_view(L"+*#%@").find(outcome.sketch[end]) != std::wstring::npos);
}

// In turn, at every second call: it crashes, it fails, or it ends the process. What the handler can do
// without may fail.
TEST_F(Probe, TheLibraryIsLoadedAsTheHandlerDoes) {
    const std::filesystem::path built = builtFile("Tests/vdCommon");
    m_request.library = windowsPath(built / "needy.dll");
    const EnvironmentVariable path(L"PATH", windowsPath(built / "RightDependency").c_str());
    expectNamed(L"", L"LoadLibraryEx", L"FAILED, 0x8007007E");
}

TEST_F(Probe, TroubleAtACallIsNamed) {
    constexpr const wchar_t* kinds[] = {L"nullWrite", L"fail", L"terminate"};
    constexpr const wchar_t* words[] = {L"CRASHED, access violation writing 0x0 in BlackmagicRawAPI.dll+0x",
                                        L"FAILED, 0x80004005",
                                        L"ENDED, the process ended itself with 0x00000003"};
    size_t turn = 0;
    std::map<std::wstring, int> counts;
    for (const Stage& stage : probe::stages()) {
        const std::wstring name = std::wstring(stage.interfaceName) + L"::" + stage.operation;
        // The reference decoder cannot be told to lie elsewhere.
        if (stage.slot == nullptr || name.ends_with(L"::Release"))
            continue;
        const int occurrence = ++counts[name];
        if (++turn % 2 != 0)
            continue;
        size_t kind = turn / 2 % std::size(kinds);
        // Who ended the process while FlushJobs waited for others cannot be known.
        const bool isNeverEnded = name == L"IBlackmagicRaw::FlushJobs" && kind == 2;
        const bool mayFail = !stage.isNeeded || name == L"IBlackmagicRawPipelineIterator::Next";
        if (isNeverEnded || (kind == 1 && mayFail))
            kind = 0;
        const wchar_t* const value = kind == 1 ? L"=0x80004005" : L"=3";
        expectNamed(std::wstring(kinds[kind]) + L"@" + name + L"#" + std::to_wstring(occurrence) + value,
                    name, words[kind]);
    }
}

TEST_F(Probe, WhatCannotBeTrueIsNamed) {
    constexpr Lie lies[] = {
        {L"fail@DllMain::attach", L"LoadLibraryEx", L"FAILED, 0x8007045A"},
        {L"succeedEmpty@IBlackmagicRawFactory::CreateCodec", L"IBlackmagicRawFactory::CreateCodec",
         L"no object"},
        {L"fail@IBlackmagicRaw::QueryInterface#2=0x80004002",
         L"IBlackmagicRaw::QueryInterface (for IBlackmagicRawConfigurationEx)",
         L"{ACE9078F-ABA0-4B26-A954-EDA108DADA5A}"},
        {L"allOnes@IBlackmagicRawPipelineIterator::GetPipeline",
         L"IBlackmagicRawPipelineIterator::GetPipeline", L"four letters"},
        {L"allOnes@IBlackmagicRawConfiguration::IsPipelineSupported",
         L"IBlackmagicRawConfiguration::IsPipelineSupported", L"a flag is 0 or 1"},
        {L"succeedEmpty@IBlackmagicRaw::SetCallback", L"IBlackmagicRawCallback::ReadComplete",
         L"never called it"},
        {L"zero@IBlackmagicRawClip::GetWidth", L"IBlackmagicRawClip::GetWidth",
         L"slot 3 of IBlackmagicRawClip,"},
        {L"zero@IBlackmagicRawClip::GetFrameRate", L"IBlackmagicRawClip::GetFrameRate", L"above 0"},
        {L"value@IBlackmagicRawClip::GetFrameCount=0x1000000000000000", L"IBlackmagicRawClip::GetFrameCount",
         L"1152921504606846976"},
        {L"oneLess@IBlackmagicRawClipResolutions::GetClosestResolutionForScale",
         L"IBlackmagicRawClipResolutions::GetClosestResolutionForScale", L"gives 79 x 63 and not 80 x 64"},
        {L"succeedEmpty@IBlackmagicRawJob::SetUserData", L"IBlackmagicRawJob::GetUserData (the read job)",
         L"another value"},
        {L"drop@IBlackmagicRawCallback::DecodeComplete", L"IBlackmagicRawCallback::DecodeComplete",
         L"never called it"},
        {L"nullWrite@IBlackmagicRawCallback::DecodeComplete", L"IBlackmagicRawCallback::DecodeComplete",
         L"in the library's own work, before it made this call"},
        {L"succeedEmpty@IBlackmagicRawCallback::ReadComplete", L"IBlackmagicRawCallback::ReadComplete",
         L"no frame"},
        {L"oneLess@IBlackmagicRawManualDecoderFlow1::GetProcessedSizeBytes",
         L"IBlackmagicRawManualDecoderFlow1::GetProcessedSizeBytes", L"the picture has"},
        {L"allOnes@IBlackmagicRawProcessedImage::GetHeight", L"IBlackmagicRawProcessedImage::GetHeight",
         L"4294967295"},
    };
    for (const Lie& lie : lies)
        expectNamed(lie.setting, lie.call, lie.finding);
}

TEST_F(Probe, AHangIsNamed) {
    m_request.patience = 3'000;
    expectNamed(L"hang@IBlackmagicRaw::OpenClipWithGeometry", L"IBlackmagicRaw::OpenClipWithGeometry",
                L"HUNG, no answer");
    expectNamed(L"hang@IBlackmagicRawCallback::ProcessComplete", L"IBlackmagicRawCallback::ProcessComplete",
                L"HUNG, no answer in 3 seconds, in the library's own work");
}

decltype(&CreateProcessW) g_createProcess;
int g_endingChildren = 0;

/// The next children end before they begin, as on a system that is short of something for a moment.
BOOL WINAPI createEndingProcess(LPCWSTR program, LPWSTR line, LPSECURITY_ATTRIBUTES process,
                                LPSECURITY_ATTRIBUTES thread, BOOL inherits, DWORD flags, LPVOID environment,
                                LPCWSTR folder, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION information) {
    wchar_t endingLine[] = L"x probe-child";
    return g_createProcess(program, g_endingChildren-- > 0 ? endingLine : line, process, thread, inherits,
                           flags, environment, folder, startup, information);
}

TEST_F(Probe, AChildThatEndsBeforeItBeginsIsStartedOnceMore) {
    const ReplacedImport create("CreateProcessW", &createEndingProcess);
    g_createProcess = create.former();
    g_endingChildren = 1;
    EXPECT_TRUE(probeWith(L"").isGood);
    EXPECT_EQ(probe::stages().size(), m_rows.size());
    g_endingChildren = 2;
    expectNamed(L"", L"LoadLibraryEx", L"ENDED, the process ended itself with 0x00000002");
}

TEST_F(Probe, ALibraryWithOtherMannersIsGood) {
    for (const wchar_t* const manners :
         {L"submitCompletesFirst,otherSuccessCodes,buffersNeedMore,ascendingResolutions",
          L"resourceManagerHoldsCodec,callbackIsNotCounted,changingThreads,lateCompletions,"
          L"shuffledResolutions"}) {
        const ProbeOutcome outcome = probeWith(manners);
        EXPECT_TRUE(outcome.isGood) << manners << "\n" << outcome.trouble;
    }
}

TEST_F(Probe, WhatIsNoLibraryOrNoClipIsRefusedBeforehand) {
    const auto inside = [&](const wchar_t* name) { return windowsPath(m_folder.path() / name); };
    std::string foreign = readFileBytes(m_request.library);
    const size_t machine = static_cast<size_t>(static_cast<uint8_t>(foreign[0x3C])) + 4;
    foreign[machine] = 0x64; // of the code's two bytes, the other is 0xAA: ARM64
    foreign[machine + 1] = static_cast<char>(0xAA);
    writeFileBytes(inside(L"arm.dll"), foreign);
    writeFileBytes(inside(L"text.dll"), "This is no library.");
    writeFileBytes(inside(L"photo.braw"), "\xFF\xD8\xFF\xE0");
    const struct {
        std::wstring clip, library;
        const wchar_t* line;
        ExitCode code = EXIT_FAILED;
        std::wstring picture = L"p.png";
    } cases[] = {
        {m_request.clip, m_request.library, L"written over", EXIT_USAGE, m_request.clip},
        {m_request.clip, inside(L"missing.dll"), L"does not exist"},
        {m_request.clip, m_folder.path().wstring(), L"is a folder"},
        {m_request.clip, inside(L"text.dll"), L"is no DLL"},
        {m_request.clip, windowsPath(kBinaries / "clipforge-thumb.exe"), L"is no DLL"},
        {m_request.clip, inside(L"arm.dll"), L"is for another processor (ARM64)"},
        {inside(L"missing.braw"), m_request.library, L"does not exist"},
        {inside(L"photo.braw"), m_request.library, L"is a JPEG picture, not a clip"},
    };
    for (const auto& [clip, library, line, code, picture] : cases) {
        const std::wstring_view words[] = {clip, L"--library", library, L"--out", picture};
        try {
            runProbe(words);
            ADD_FAILURE() << line;
        } catch (const CommandError& error) {
            EXPECT_EQ(code, error.code());
            EXPECT_NE(std::wstring::npos, error.line().find(line)) << error.line();
        }
    }
}

TEST_F(Probe, TheLibrarysProcessGoesWithTheProbe) {
    const EnvironmentVariable hang(L"REFERENCE_DECODER", L"hang@IBlackmagicRawFactory::CreateCodec");
    const ChildProcess host(windowsPath(kBinaries / "clipforge-thumb.exe"), {L"probe", m_request.clip});
    const auto children = [&] { return childProcesses(L"clipforge-thumb.exe", host.id()).size(); };
    while (children() == 0)
        Sleep(10);
    host.terminate();
    for (int i = 0; i < 500 && children() > 0; ++i)
        Sleep(10);
    EXPECT_EQ(0u, children());
    for (const DWORD left : childProcesses(L"clipforge-thumb.exe", host.id()))
        TerminateProcess(OpenProcess(PROCESS_TERMINATE, FALSE, left), 1);
}

TEST_F(Probe, APersonGetsRowsAndASentence) {
    writeFileBytes(m_request.clip, "This is no clip.");
    const ProgramRun run = runProgram(kBinaries / "clipforge-thumb.exe", {L"probe", m_request.clip});
    EXPECT_EQ(1u, run.exitCode);
    EXPECT_EQ("", run.errors);
    EXPECT_NE(std::string::npos, run.output.find("ok  ")) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("FAILED")) << run.output;
    const size_t last = run.output.rfind('\n', run.output.size() - 2) + 1;
    EXPECT_TRUE(run.output.substr(last).starts_with("Next: see whether the clip plays")) << run.output;
}

} // namespace
