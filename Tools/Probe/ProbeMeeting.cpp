#include "ProbeMeeting.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "Console.h"
#include "ExceptionText.h"
#include "PngFile.h"

namespace probe {

namespace {

int64_t now() {
    LARGE_INTEGER ticks;
    QueryPerformanceCounter(&ticks);
    return ticks.QuadPart;
}

Report* g_report = nullptr; ///< for the crash filter, which is given nothing

/// Writes into the report alone: the heap may be what is broken.
LONG WINAPI noteCrash(EXCEPTION_POINTERS* exception) {
    describeException(*exception->ExceptionRecord, g_report->crash);
    g_report->crashedThread = GetCurrentThreadId();
    TerminateProcess(GetCurrentProcess(), exception->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

uint32_t firstStageOf(Segment segment) {
    const auto first = std::ranges::find(stages(), segment, &Stage::segment);
    return static_cast<uint32_t>(first - stages().begin());
}

} // namespace

bool GuardedBuffer::reset(size_t size) {
    constexpr size_t page = 4096;
    if (m_base != nullptr)
        VirtualFree(m_base, 0, MEM_RELEASE);
    m_base = nullptr;
    m_data = nullptr;
    m_size = 0;
    const size_t pages = (size + page - 1) / page * page;
    if (size == 0)
        return true;
    m_base = VirtualAlloc(nullptr, pages + page, MEM_RESERVE, PAGE_NOACCESS);
    if (m_base == nullptr || VirtualAlloc(m_base, pages, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        return false;
    // Rows are read and written in units of up to 32 bytes, by instructions that demand such addresses.
    constexpr size_t alignment = 64;
    m_data = static_cast<uint8_t*>(m_base) + (pages - size) / alignment * alignment;
    m_size = size;
    std::fill_n(m_data, size, filler);
    return true;
}

Meeting::Meeting(Report& report, std::wstring clip, std::wstring library, std::wstring picture)
    : m_report(report), m_clip(std::move(clip)), m_library(std::move(library)), m_picture(std::move(picture)),
      m_over(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    m_report.awaitedStage = noStage;
}

Meeting::~Meeting() {
    CloseHandle(m_over);
}

bool Meeting::isPictureThere(DWORD milliseconds) const {
    return WaitForSingleObject(m_over, milliseconds) == WAIT_OBJECT_0;
}

void Meeting::awaitNextCompletion() {
    const Segment next = m_completions == Segment::opening        ? Segment::readComplete
                         : m_completions == Segment::readComplete ? Segment::decodeComplete
                                                                  : Segment::processComplete;
    m_report.awaitedStage = firstStageOf(next);
}

Row* Meeting::begin(uint32_t index) {
    const uint32_t number = m_rows++;
    if (number >= Report::maximumRows)
        return nullptr;
    Row& row = m_report.rows[number];
    row.stage = index;
    row.thread = GetCurrentThreadId();
    row.begun = now();
    row.verdict = Verdict::running;
    m_report.rowCount = number + 1;
    ++m_report.progress;
    return &row;
}

bool Meeting::end(Row& row, const Outcome& outcome) {
    row.ended = now();
    row.result = outcome.result;
    const bool isFailed = FAILED(outcome.result);
    setText(row.value, isFailed ? L"" : outcome.value);
    setText(row.doubt, isFailed ? L"" : outcome.doubt);
    row.verdict = isFailed ? Verdict::failed : !outcome.doubt.empty() ? Verdict::impossible : Verdict::good;
    ++m_report.progress;
    return row.verdict == Verdict::good || !stages()[row.stage].isNeeded;
}

bool Meeting::runStage(uint32_t index) {
    Row* const row = begin(index);
    return row != nullptr && end(*row, stages()[index].run(*this));
}

bool Meeting::walk(Segment segment) {
    for (uint32_t index = 0; index < stages().size(); ++index)
        if (stages()[index].segment == segment && !runStage(index)) {
            m_isTroubled = true;
            SetEvent(m_over);
            return false;
        }
    return true;
}

void Meeting::walk() {
    if (walk(Segment::starting) && !m_clip.empty() && walk(Segment::opening) && !m_isTroubled) {
        if (!isPictureThere(2'000))
            tellMissingCompletion();
        else if (!m_isTroubled)
            walk(Segment::closing);
    }
    m_report.isComplete = 1;
}

void Meeting::tellMissingCompletion() {
    if (Row* const row = begin(m_report.awaitedStage))
        end(*row, {S_OK, L"", L"the library never called it, though FlushJobs had returned"});
}

void Meeting::sketchPicture() {
    const uint32_t width = holdings.imageWidth, height = holdings.imageHeight;
    constexpr std::wstring_view ramp = L" .:-=+*#%@";
    // Characters are about twice as tall as wide.
    const double ratio = static_cast<double>(height) / width / 2;
    const int columns =
        std::clamp(static_cast<int>(std::lround(Report::sketchHeight / ratio)), 1, Report::sketchWidth);
    const int rows = std::clamp(static_cast<int>(std::lround(columns * ratio)), 1, Report::sketchHeight);
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column) {
            const auto x = static_cast<uint32_t>((column + 0.5) * width / columns);
            const auto y = static_cast<uint32_t>((row + 0.5) * height / rows);
            const uint8_t* const pixel = holdings.picture.data() + (size_t{height - 1 - y} * width + x) * 4;
            const int brightness = (pixel[0] * 11 + pixel[1] * 59 + pixel[2] * 30) / 100;
            m_report.sketch[row][column] = ramp[static_cast<size_t>(brightness) * ramp.size() / 256];
        }
}

HRESULT Meeting::savePicture() const {
    DIBSECTION section{};
    section.dsBmih.biWidth = static_cast<LONG>(holdings.imageWidth);
    section.dsBmih.biHeight = static_cast<LONG>(holdings.imageHeight);
    section.dsBm.bmWidthBytes = static_cast<LONG>(holdings.imageWidth) * 4;
    section.dsBm.bmBits = holdings.picture.data();
    return writePng(section, m_picture);
}

HRESULT Meeting::QueryInterface(REFIID identifier, void** object) {
    *object = nullptr;
    if (identifier != IID_IUnknown)
        return E_NOINTERFACE;
    AddRef();
    *object = static_cast<IBlackmagicRawCallback*>(this);
    return S_OK;
}

void Meeting::complete(Segment segment, IBlackmagicRawJob* job, HRESULT result) {
    m_report.awaitedStage = noStage;
    m_completions = segment;
    holdings.completedJob = job;
    holdings.completedResult = result;
    if (!m_isTroubled)
        walk(segment);
}

void Meeting::ReadComplete(IBlackmagicRawJob* job, HRESULT result, IBlackmagicRawFrame* frame) {
    holdings.frame = frame;
    complete(Segment::readComplete, job, result);
}

void Meeting::DecodeComplete(IBlackmagicRawJob* job, HRESULT result) {
    complete(Segment::decodeComplete, job, result);
}

void Meeting::ProcessComplete(IBlackmagicRawJob* job, HRESULT result, IBlackmagicRawProcessedImage* image) {
    holdings.image = image;
    complete(Segment::processComplete, job, result);
    SetEvent(m_over);
}

void meetInThisProcess(HANDLE section, const std::wstring& clip, const std::wstring& library,
                       const std::wstring& picture) {
    void* const view = MapViewOfFile(section, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Report));
    if (view == nullptr)
        std::_Exit(EXIT_USAGE);
    g_report = static_cast<Report*>(view);
    SetUnhandledExceptionFilter(noteCrash);
    Meeting meeting(*g_report, clip, library, picture);
    meeting.walk();
    // What the library left behind, threads too, ends here and not by its own ways.
    TerminateProcess(GetCurrentProcess(), EXIT_DONE);
    std::abort();
}

} // namespace probe
