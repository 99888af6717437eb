#include "Meanings.h"

#include <algorithm>
#include <iterator>

#include "GuardFailures.h"

namespace {

struct Meaning {
    HRESULT result;
    const wchar_t* text;
};
constexpr Meaning kMeanings[] = {
    {REGDB_E_CLASSNOTREG, L"the handler is not registered; install it, or repair the installation"},
    {HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), L"the handler's DLL is not there, or a DLL that it needs"},
    {HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT), L"the handler's DLL is damaged, or for another processor"},
    {E_UNEXPECTED, L"the decoder library is missing, cannot be loaded or is another version"},
    {E_FAIL, L"the clip cannot be read or decoded"},
    {E_OUTOFMEMORY, L"there is not enough memory for a picture of this size"},
    {GUARD_E_WORKER_MISSING, L"the handler's worker, Clipforge_Worker.exe, is not beside it"},
    {GUARD_E_WORKER_NOT_STARTED, L"the handler's worker cannot be started, or ends at once"},
    {GUARD_E_WORKER_VERSION, L"the handler's worker is of another version"},
    {GUARD_E_HANDLER_MISSING, L"Clipforge_Thumbnails.dll is not beside the handler's worker"},
    {GUARD_E_HANDLER_NOT_LOADED, L"the handler's worker cannot load Clipforge_Thumbnails.dll"},
    {GUARD_E_WORKER_DIED, L"the decoder library crashes with this clip"},
    {GUARD_E_WORKER_TIMED_OUT, L"the decoder library does not come to an end with this clip"},
    {GUARD_E_WORKER_LIED, L"the handler's worker gave an answer that makes no sense"},
    {GUARD_E_PICTURE_TOO_LARGE, L"the picture is larger than the handler passes on"},
    {GUARD_E_CLIP_KILLS, L"the decoder library has crashed or hung with this clip before"},
    {GUARD_E_PAUSE, L"three clips in a row ended the decoder library; it rests for a minute"},
};

} // namespace

std::wstring meaningOf(HRESULT result) {
    const auto* const known = std::ranges::find(kMeanings, result, &Meaning::result);
    return known != std::end(kMeanings) ? known->text : L"";
}
