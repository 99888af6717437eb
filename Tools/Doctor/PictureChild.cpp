#include "PictureChild.h"

#include <chrono>

#include "Console.h"
#include "HandlerHost.h"
#include "Meanings.h"
#include "OwnChild.h"

namespace {

// What nobody else ends a process with: 0 to 2 may come from a library's own exit, a misuse or the task
// manager. Failures and exception codes are negative.
constexpr HRESULT kPictureMade = MAKE_HRESULT(SEVERITY_SUCCESS, FACILITY_ITF, 0x2A51);

LONG WINAPI endWithItsCode(EXCEPTION_POINTERS* exception) {
    TerminateProcess(GetCurrentProcess(), exception->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

HRESULT ask(const std::wstring& handler, const std::wstring& clip) {
    HandlerLibrary library;
    const HRESULT result = library.load(handler);
    return FAILED(result) ? result : askForThumbnail(clip, 256, &library).result;
}

} // namespace

PictureAnswer askInChild(const std::wstring& handler, const std::wstring& clip) {
    constexpr DWORD patience = 60'000;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const OwnChild child({L"picture-child", handler, clip});
    if (!child.hasEnded(patience))
        return {false, HRESULT_FROM_WIN32(ERROR_TIMEOUT), L"no answer in a minute"};
    const auto code = static_cast<HRESULT>(child.exitCode());
    PictureAnswer answer{code == kPictureMade, code, L""};
    answer.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    constexpr DWORD exceptions = 0xC0000000; // where the system's exceptions begin
    const std::wstring meaning = static_cast<DWORD>(code) >= exceptions ? L"it crashed" : meaningOf(code);
    if (SUCCEEDED(code) && !answer.isGood)
        answer.trouble = L"its process ended with " + hexadecimal(code) + L" before it had an answer";
    else if (!answer.isGood)
        answer.trouble = (meaning.empty() ? L"" : meaning + L", ") + describe(code);
    return answer;
}

int runPictureChild(Words words) {
    if (words.size() != 2)
        return EXIT_USAGE;
    SetUnhandledExceptionFilter(endWithItsCode);
    const HRESULT result = ask(std::wstring(words[0]), std::wstring(words[1]));
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(SUCCEEDED(result) ? kPictureMade : result));
    return EXIT_FAILED;
}
