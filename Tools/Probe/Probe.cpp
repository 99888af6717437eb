#include "Probe.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <optional>
#include <set>
#include <vector>

#include <windows.h>

#include "BlackmagicRawAPIFile.h"
#include "Console.h"
#include "LibraryFile.h"
#include "OwnChild.h"
#include "Paths.h"
#include "ProbeMeeting.h"
#include "ProbeReport.h"
#include "ProbeStages.h"

namespace {

using probe::Remedy;
using probe::Report;
using probe::Row;
using probe::Stage;
using probe::Verdict;

/// Milliseconds until the first call: a busy machine takes its time to start a process.
constexpr DWORD kStartPatience = 60'000;

/// How the meeting ended, beside what the rows say.
enum class End { complete, crashed, stoodStill, vanished };

/// The block that the child reports in, under a handle that the child inherits.
class SharedReport {
public:
    SharedReport() {
        SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
        m_section = CreateFileMappingW(INVALID_HANDLE_VALUE, &inheritable, PAGE_READWRITE, 0, sizeof(Report),
                                       nullptr);
        if (m_section != nullptr)
            m_report =
                static_cast<Report*>(MapViewOfFile(m_section, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Report)));
        if (m_report != nullptr)
            return;
        const HRESULT result = lastError();
        CloseHandle(m_section);
        throw CommandError(L"there is no memory for the child's report: " + describe(result));
    }
    ~SharedReport() {
        UnmapViewOfFile(m_report);
        CloseHandle(m_section);
    }
    SharedReport(const SharedReport&) = delete;
    SharedReport& operator=(const SharedReport&) = delete;

    const Report& get() const { return *m_report; }
    std::wstring handleText() const { return std::to_wstring(reinterpret_cast<uintptr_t>(m_section)); }

private:
    HANDLE m_section = nullptr;
    Report* m_report = nullptr;
};

template <size_t size>
std::wstring textOf(const wchar_t (&place)[size]) {
    return {place, wcsnlen(place, size)};
}

std::wstring nameOf(const Stage& stage) {
    std::wstring name = *stage.interfaceName != L'\0' ? std::wstring(stage.interfaceName) + L"::" : L"";
    name += stage.operation;
    return *stage.note != L'\0' ? name + L" (" + stage.note + L")" : name;
}

std::wstring identifierText(const GUID& identifier) {
    wchar_t text[40] = {};
    StringFromGUID2(identifier, text, static_cast<int>(std::size(text)));
    return text;
}

/// "slot 6 of IBlackmagicRawClip", with the identifier that was used, if any.
std::wstring slotAndIdentifier(const Stage& stage) {
    if (stage.slot == nullptr)
        return {};
    std::wstring text = L"slot " + std::to_wstring(stage.slot()) + L" of " + stage.interfaceName;
    text += stage.identifier != nullptr ? L", identifier " + identifierText(stage.identifier())
                                        : L", handed out by the library without an identifier";
    return text;
}

double millisecondsOf(const Row& row, int64_t ended) {
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(ended - row.begun) * 1000 / static_cast<double>(frequency.QuadPart);
}

std::wstring atRight(const std::wstring& text, size_t width) {
    return std::wstring(text.size() < width ? width - text.size() : 0, L' ') + text;
}

/// One row of the table. `word` and `detail` say how the call came out.
std::wstring rowText(size_t number, const std::wstring& word, const std::wstring& time, const Stage& stage,
                     const std::wstring& detail) {
    const std::wstring text = atRight(std::to_wstring(number), 3) + L"  " + word +
                              std::wstring(word.size() < 10 ? 10 - word.size() : 0, L' ') + L" " +
                              atRight(time, 11) + L"  " + nameOf(stage);
    return detail.empty() ? text : text + L"  " + detail;
}

/// The mark on a call that is not as it must be, and the words for it.
struct Finding {
    const wchar_t* word;
    std::wstring detail;
    std::wstring meaning;
    Remedy remedy;
};

constexpr const wchar_t* kMisfit = L"another operation stands in this slot of the library, or takes other "
                                   L"arguments: the declarations that this "
                                   L"program was built with do not fit this library";
constexpr const wchar_t* kOwnThread = L"the library broke off in its own work: the clip is damaged, a buffer "
                                      L"is smaller than the library needs, or "
                                      L"the library itself has a defect";

Finding findingOf(const Row& row) {
    const Stage& stage = probe::stages()[row.stage];
    if (row.verdict == Verdict::failed)
        return {stage.isNeeded ? L"FAILED" : L"refused", describe(row.result), stage.meaning, stage.remedy};
    if (row.verdict == Verdict::impossible)
        return {L"IMPOSSIBLE",
                row.value[0] != L'\0' ? textOf(row.value) + L", but " + textOf(row.doubt) : textOf(row.doubt),
                stage.slot != nullptr ? kMisfit : stage.meaning,
                stage.slot != nullptr ? Remedy::declarations : stage.remedy};
    return {L"ok", textOf(row.value), L"", Remedy::report};
}

std::wstring adviceFor(Remedy remedy) {
    switch (remedy) {
    case Remedy::library:
        return L"Next: get the maker's 64-bit BlackmagicRawAPI.dll with the files that belong to it, and "
               L"name it "
               L"with --library.";
    case Remedy::declarations:
        return L"Next: build with the maker's own declarations (./dev build --decoder-include FOLDER) and "
               L"run this "
               L"again; if this row stays, send this text to those who make the handler.";
    case Remedy::clip:
        return L"Next: see whether the clip plays in the maker's own player, and try another clip; if it "
               L"plays "
               L"there, send this text to those who make the handler.";
    default:
        return L"Next: send this text to those who make the handler.";
    }
}

std::wstring goodAdvice(const std::wstring& library) {
    const LibraryFile file = examineLibrary(library);
    if (file.size != BlackmagicRawAPIFileSize)
        return L"Next: the library fits, but the handler takes the one of " +
               std::to_wstring(BlackmagicRawAPIFileSize) + L" bytes only, and this one has " +
               std::to_wstring(file.size) + L"; look for that version.";
    return L"Next: nothing. The library and the handler fit each other; put it beside the handler's DLL.";
}

/// The parent's side: rows as they end, the watch over the child, and the judgement.
class Probe {
public:
    Probe(const ProbeRequest& request, const std::function<void(const std::wstring&)>& onRow)
        : m_library(request.library), m_patience(request.patience), m_onRow(onRow),
          m_child(argumentsFor(request)) {}

    /// Without value when the child ended before it began, which says nothing of the library: a scanner or a
    /// system that is short of something ends new processes. The last try is judged all the same.
    std::optional<ProbeOutcome> run(bool isLastTry) {
        const End end = watch();
        if (end == End::vanished && m_report.get().rowCount == 0 && !isLastTry)
            return std::nullopt;
        tellEndedRows();
        judge(end);
        for (const auto& line : m_report.get().sketch)
            if (line[0] != L'\0')
                m_outcome.sketch += L"      " + textOf(line) + L"\n";
        return std::move(m_outcome);
    }

private:
    std::vector<std::wstring> argumentsFor(const ProbeRequest& request) const {
        return {L"probe-child", m_report.handleText(), request.clip, request.library, request.picture};
    }

    End watch() {
        const Report& report = m_report.get();
        uint32_t progress = 0;
        ULONGLONG changed = GetTickCount64();
        constexpr DWORD interval = 50;
        while (!m_child.hasEnded(interval)) {
            tellEndedRows();
            if (progress != report.progress) {
                progress = report.progress;
                changed = GetTickCount64();
            } else if (GetTickCount64() - changed > (progress == 0 ? kStartPatience : m_patience)) {
                m_child.terminate();
                return report.isComplete ? End::complete : End::stoodStill;
            }
        }
        if (report.isComplete)
            return End::complete;
        return report.crashedThread != 0 ? End::crashed : End::vanished;
    }

    /// In the order in which they ended: calls that the library makes lie within calls of ours.
    void tellEndedRows() {
        std::vector<uint32_t> ended;
        const Report& report = m_report.get();
        const uint32_t count = std::min(report.rowCount.load(), Report::maximumRows);
        for (uint32_t i = 0; i < count; ++i)
            if (report.rows[i].verdict > Verdict::running && m_told.insert(i).second)
                ended.push_back(i);
        std::ranges::sort(ended, {}, [&](uint32_t i) { return report.rows[i].ended; });
        for (const uint32_t i : ended) {
            const Row& row = report.rows[i];
            const Stage& stage = stageOf(row);
            const Finding finding = findingOf(row);
            tell(stage, finding, decimal(millisecondsOf(row, row.ended), 2) + L" ms");
            // What only a log would show ends no thumbnail, but a lie there tells of a wrong slot.
            if (row.verdict == Verdict::impossible || (row.verdict == Verdict::failed && stage.isNeeded))
                note(stage, finding);
        }
    }

    void tell(const Stage& stage, const Finding& finding, const std::wstring& time) {
        m_onRow(rowText(++m_number, finding.word, time, stage, finding.detail));
    }
    /// The first trouble counts.
    void note(const Stage& stage, const Finding& finding) {
        if (!m_outcome.trouble.empty())
            return;
        m_outcome.trouble = nameOf(stage) + L": " + finding.word + L", " + finding.detail;
        if (const std::wstring slot = slotAndIdentifier(stage); !slot.empty())
            m_outcome.trouble += L" (" + slot + L")";
        m_outcome.meaning = finding.meaning;
        m_outcome.advice = adviceFor(finding.remedy);
    }

    void judge(End end) {
        if (end != End::complete)
            noteBrokenCall(end);
        m_outcome.isGood = m_outcome.trouble.empty();
        if (m_outcome.isGood)
            m_outcome.advice = goodAdvice(m_library);
    }

    /// The call that the child did not come back from.
    struct BrokenCall {
        const Stage* stage = probe::stages().data();
        bool isAwaited =
            false; ///< the library was to make it, while FlushJobs waited or it worked for itself
    };

    /// The last that is running on the crashed thread, or on any; what the library owes when that one only
    /// waits, or when a thread of its own crashed.
    BrokenCall findBrokenCall(End end) const {
        const Report& report = m_report.get();
        const Row* last = nullptr;
        const uint32_t count = std::min(report.rowCount.load(), Report::maximumRows);
        for (uint32_t i = 0; i < count; ++i) {
            const Row& row = report.rows[i];
            if (row.verdict == Verdict::running &&
                (end != End::crashed || row.thread == report.crashedThread))
                last = &row;
        }
        const bool isWaiting =
            last == nullptr || (end != End::crashed && wcscmp(stageOf(*last).operation, L"FlushJobs") == 0);
        if (isWaiting && report.awaitedStage < probe::stages().size())
            return {&probe::stages()[report.awaitedStage], true};
        return last != nullptr ? BrokenCall{&stageOf(*last)} : BrokenCall{};
    }

    void noteBrokenCall(End end) {
        const Report& report = m_report.get();
        const auto [stage, isAwaited] = findBrokenCall(end);
        Finding finding{L"ENDED", L"", stage->slot != nullptr ? kMisfit : stage->meaning,
                        stage->slot != nullptr ? Remedy::declarations : stage->remedy};
        if (isAwaited)
            finding = {L"ENDED", L"", kOwnThread, Remedy::clip};
        if (end == End::stoodStill) {
            finding.word = L"HUNG";
            finding.detail = L"no answer in " + std::to_wstring(m_patience / 1000) + L" seconds";
            finding.meaning =
                L"the library waits for something that does not come, or another operation stands "
                L"in this slot";
        } else if (end == End::crashed) {
            finding.word = L"CRASHED";
            finding.detail = textOf(report.crash);
        } else {
            finding.detail =
                L"the process ended itself with " + hexadecimal(static_cast<HRESULT>(m_child.exitCode()));
        }
        if (isAwaited)
            finding.detail += L", in the library's own work, before it made this call";
        tell(*stage, finding, L"");
        note(*stage, finding);
    }

    static const Stage& stageOf(const Row& row) {
        return probe::stages()[row.stage % probe::stages().size()];
    }

    std::wstring m_library;
    DWORD m_patience;
    const std::function<void(const std::wstring&)>& m_onRow;
    SharedReport m_report;
    OwnChild m_child;
    std::set<uint32_t> m_told;
    size_t m_number = 0;
    ProbeOutcome m_outcome;
};

std::wstring systemLine() {
    using GetVersion = LONG(WINAPI*)(OSVERSIONINFOW*);
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    const FARPROC get = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion");
    reinterpret_cast<GetVersion>(reinterpret_cast<void*>(get))(&version);
    SYSTEM_INFO system{};
    GetNativeSystemInfo(&system);
    return L"Windows " + std::to_wstring(version.dwMajorVersion) + L"." +
           std::to_wstring(version.dwMinorVersion) + L"." + std::to_wstring(version.dwBuildNumber) + L", " +
           std::to_wstring(system.dwNumberOfProcessors) + L" processors";
}

std::wstring libraryLine(const std::wstring& path) {
    const LibraryFile file = examineLibrary(path);
    return path + L", " + std::to_wstring(file.size) + L" bytes" +
           (file.version.empty() ? L"" : L", version " + file.version);
}

ProbeRequest requestOf(Words words) {
    std::optional<std::wstring> library, out;
    const Option options[] = {{L"--library", &library}, {L"--out", &out}};
    const std::vector<std::wstring> clips = parseWords(words, options);
    if (clips.size() != 1)
        throw CommandError(L"probe takes one clip", EXIT_USAGE);
    ProbeRequest request{fullPath(clips[0]), fullPath(library.value_or(usualLibrary())),
                         fullPath(out.value_or(L""))};
    if (const std::wstring obstacle = obstacleTo(request.clip); !obstacle.empty())
        throw CommandError(request.clip + L" " + obstacle);
    if (const std::wstring kind = kindOfNoClip(request.clip); !kind.empty() && kind != L"a program")
        throw CommandError(request.clip + L" is " + kind + L", not a clip");
    if (const std::wstring fault = examineLibrary(request.library).fault; !fault.empty())
        throw CommandError(request.library + L" " + fault);
    if (isSameFile(request.picture, request.clip) || isSameFile(request.picture, request.library))
        throw CommandError(L"the picture would be written over " + request.picture, EXIT_USAGE);
    return request;
}

} // namespace

ProbeOutcome probeLibrary(const ProbeRequest& request,
                          const std::function<void(const std::wstring&)>& onRow) {
    std::optional<ProbeOutcome> outcome = Probe(request, onRow).run(false);
    return outcome ? std::move(*outcome) : *Probe(request, onRow).run(true);
}

int runProbe(Words words) {
    const ProbeRequest request = requestOf(words);
    print(L"A first meeting with a decoder library, by Clipforge Thumbnails " CLIPFORGE_VERSION_TEXT L"\n");
    print(L"library  " + libraryLine(request.library) + L"\nclip     " + request.clip + L", " +
          std::to_wstring(fileSize(request.clip)) + L" bytes\nsystem   " + systemLine() + L"\n\n");
    const ProbeOutcome outcome = probeLibrary(request, [](const std::wstring& row) { print(row + L"\n"); });
    if (!outcome.sketch.empty())
        print(L"\nThe picture, bright where it is dense:\n" + outcome.sketch);
    if (!outcome.isGood)
        print(L"\n" + outcome.trouble + L"\nMost likely: " + outcome.meaning + L".");
    print(L"\n" + outcome.advice + L"\n");
    return outcome.isGood ? EXIT_DONE : EXIT_FAILED;
}

int runProbeChild(Words words) {
    if (words.size() != 4)
        return EXIT_USAGE;
    auto* const section =
        reinterpret_cast<HANDLE>(static_cast<uintptr_t>(std::stoull(std::wstring(words[0]))));
    probe::meetInThisProcess(section, std::wstring(words[1]), std::wstring(words[2]), std::wstring(words[3]));
}
