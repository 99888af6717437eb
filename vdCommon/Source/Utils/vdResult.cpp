#include "Utils/vdResult.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

#include "Utils/vdText.h"

namespace {
/// The system's own message without its line break, empty when it has none.
std::string systemText(HRESULT result) {
    wchar_t* allocated = nullptr;
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        static_cast<DWORD>(result), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
        reinterpret_cast<wchar_t*>(&allocated), 0, nullptr);
    const std::unique_ptr<wchar_t, decltype(&LocalFree)> owner(allocated, &LocalFree);
    if (length == 0)
        return {};
    std::wstring_view text(allocated, length);
    if (text.ends_with(L'\n')) {
        text.remove_suffix(1);
        if (text.ends_with(L'\r'))
            text.remove_suffix(1);
    }
    return utf16ToUtf8(text);
}
} // namespace

std::string hresultText(HRESULT result) {
    if (std::string text = systemText(result); !text.empty())
        return text;
    // Automation servers number their own errors from here on; the base itself names none.
    constexpr uint32_t dispatchBase = 0x80040200;
    constexpr uint32_t dispatchLast = 0x8004FFFF;
    const auto code = static_cast<uint32_t>(result);
    char text[40];
    if (code > dispatchBase && code <= dispatchLast)
        std::snprintf(text, sizeof text, "IDispatch error #%u", static_cast<unsigned>(code - dispatchBase));
    else
        std::snprintf(text, sizeof text, "Unknown error 0x%0X", static_cast<unsigned>(code));
    return text;
}
