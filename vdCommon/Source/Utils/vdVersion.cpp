#include "Utils/vdVersion.h"

std::string versionToString(vdVersion version) {
    constexpr uint8_t unknownMajor = 255;
    std::string text =
        version.major == unknownMajor ? "Unknown Version. Infos : " : std::to_string(version.major) + ".";
    text += std::to_string(version.minor) + "." + std::to_string(version.patch);
    if (version.beta != 0)
        text += ".beta" + std::to_string(version.beta);
    return text;
}
