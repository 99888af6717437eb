#include "Adobe/vdHost.h"

#include <array>
#include <iterator>
#include <string_view>

#include <windows.h>

#include "Utils/vdLogging.h"
#include "Utils/vdModule.h"

namespace {
/// Indexed by the host's value.
constexpr std::string_view hostNames[] = {
    "Unknown",     "Premiere Pro", "Premiere Elements", "After Effects", "Adobe Media Encoder",
    "Cotton Wood", "Prelude",      "Speed Grade",       "Audition",      "Character Animator",
    "Desktop",
};
} // namespace

std::string hostAppName(vdHostApp app) {
    const auto value = static_cast<uint8_t>(app);
    return value < std::size(hostNames) ? std::string(hostNames[value]) : std::to_string(value);
}

std::wstring GetDylibParentFolderPath() {
    std::array<wchar_t, MAX_PATH + 1> buffer = {};
    const DWORD length = GetModuleFileNameW(ownModule(), buffer.data(), MAX_PATH);
    const DWORD error = GetLastError();
    // A path cut to the buffer's size would name a folder that is not ours.
    if (length == 0 || length >= MAX_PATH) {
        VD_LOG_ERROR("GetModuleFileName failed, error = " << error);
        return {};
    }
    std::size_t last = length - 1;
    while (last > 0 && buffer[last] != L'\\')
        --last;
    return {buffer.data(), last + 1};
}
