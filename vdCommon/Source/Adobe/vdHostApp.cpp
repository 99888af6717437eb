#include "Adobe/vdHostApp.h"

#include <iterator>
#include <string_view>

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
