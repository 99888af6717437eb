#include "Utils/vdFailureEvent.h"

#include <cwchar>
#include <string>

#include "Utils/vdGuard.h"
#include "Utils/vdPolicy.h"

namespace {
constexpr wchar_t sourceName[] = L"Clipforge Thumbnails";
/// The system's EventCreate.exe has a message "%1" under this number; the installer names it for our source.
constexpr DWORD eventId = 1;
/// A text that the log takes has less than 31,839 characters.
constexpr size_t longestPath = 30000;

SRWLOCK g_limitLock = SRWLOCK_INIT;
constinit vdRateLimit g_limit(8, uint64_t{10} * 60 * 1000);

bool isAdmitted(uint32_t& leftOut) noexcept {
    AcquireSRWLockExclusive(&g_limitLock);
    const bool admitted = g_limit.admits(GetTickCount64(), leftOut);
    ReleaseSRWLockExclusive(&g_limitLock);
    return admitted;
}

std::wstring eventText(const vdThumbnailFailure& failure, uint32_t leftOut) {
    wchar_t code[16];
    std::swprintf(code, std::size(code), L"0x%08lX", static_cast<unsigned long>(failure.code));
    std::wstring text = L"No thumbnail was made.\r\nClip: ";
    text.append(std::wstring_view(failure.clip).substr(0, longestPath));
    text.append(L"\r\nStage: ").append(failure.stage).append(L"\r\nCode: ").append(code);
    if (failure.requestError != 0)
        text.append(L"\r\nRequest error: ").append(std::to_wstring(failure.requestError));
    if (leftOut != 0)
        text.append(L"\r\nFailures left out since the last event: ").append(std::to_wstring(leftOut));
    return text;
}

void writeEvent(const std::wstring& text) noexcept {
    const HANDLE log = RegisterEventSourceW(nullptr, sourceName);
    if (log == nullptr)
        return;
    const wchar_t* const texts[] = {text.c_str()};
    ReportEventW(log, EVENTLOG_WARNING_TYPE, 0, eventId, nullptr, 1, 0, const_cast<const wchar_t**>(texts),
                 nullptr);
    DeregisterEventSource(log);
}
} // namespace

bool vdRateLimit::admits(uint64_t now, uint32_t& leftOut) noexcept {
    if (m_count == 0 || now - m_start >= m_interval) {
        m_start = now;
        m_count = 0;
    }
    if (m_count == m_most) {
        ++m_leftOut;
        return false;
    }
    ++m_count;
    leftOut = m_leftOut;
    m_leftOut = 0;
    return true;
}

void reportFailure(const vdThumbnailFailure& failure) noexcept {
    uint32_t leftOut = 0;
    if (policyValue(vdPolicy::failureEvents) == 0 || !isAdmitted(leftOut))
        return;
    guardBoundary([&] {
        writeEvent(eventText(failure, leftOut));
        return S_OK;
    });
}
