#include "ProcessingSettings.h"

#include <cstring>
#include <string_view>

namespace {
template <std::size_t size>
bool sameText(const char (&a)[size], const char (&b)[size]) {
    return std::strncmp(a, b, size) == 0;
}
} // namespace

bool hasCustomGamma(const brClipProcessingSettings& settings) {
    return std::string_view(settings.gamma, strnlen(settings.gamma, sizeof settings.gamma)) == brCustomGamma;
}

bool sameSettings(const brClipProcessingSettings& a, const brClipProcessingSettings& b) {
    if (a.colorScience != b.colorScience || !sameText(a.gamut, b.gamut) ||
        a.gamutCompression != b.gamutCompression || !sameText(a.gamma, b.gamma))
        return false;
    const bool sameToneCurve = a.saturation == b.saturation && a.contrast == b.contrast &&
                               a.midpoint == b.midpoint && a.highlights == b.highlights &&
                               a.shadows == b.shadows && a.whiteLevel == b.whiteLevel &&
                               a.blackLevel == b.blackLevel && a.videoBlackLevel == b.videoBlackLevel;
    return (sameToneCurve || !hasCustomGamma(a)) && a.highlightRecovery == b.highlightRecovery &&
           sameText(a.lutMode, b.lutMode);
}

bool sameSettings(const brFrameProcessingSettings& a, const brFrameProcessingSettings& b) {
    return a.iso == b.iso && a.colorTemp == b.colorTemp && a.tint == b.tint && a.exposure == b.exposure;
}
