// Which of the decoder's attributes each setting feeds. What sends settings and what compares them walks
// these.
#pragma once

#include <cstdint>
#include <string_view>
#include <variant>

#include "BlackmagicRawAPI.h"
#include "ProcessingSettings.h"

/// One setting: its name for messages, the attribute's code, and the field that holds its value.
template <class Settings, class Code>
struct brSetting {
    std::string_view name;
    Code code;
    std::variant<bool Settings::*, int16_t Settings::*, uint16_t Settings::*, uint32_t Settings::*,
                 float Settings::*, char (Settings::*)[12], char (Settings::*)[64]>
        field;
    bool isOfToneCurve = false; ///< counts under the custom gamma alone
};

using brClipSetting = brSetting<brClipProcessingSettings, BlackmagicRawClipProcessingAttribute>;
using brFrameSetting = brSetting<brFrameProcessingSettings, BlackmagicRawFrameProcessingAttribute>;

/// In the order in which they are sent.
inline constexpr brClipSetting brClipSettings[] = {
    {"ColorScience", blackmagicRawClipColorScienceGen, &brClipProcessingSettings::colorScience},
    {"Gamut", blackmagicRawClipGamut, &brClipProcessingSettings::gamut},
    {"Gamut Compression", blackmagicRawClipGamutCompression, &brClipProcessingSettings::gamutCompression},
    {"Gamma", blackmagicRawClipGamma, &brClipProcessingSettings::gamma},
    {"Contrast", blackmagicRawClipToneCurveContrast, &brClipProcessingSettings::contrast, true},
    {"Saturation", blackmagicRawClipToneCurveSaturation, &brClipProcessingSettings::saturation, true},
    {"Midpoint", blackmagicRawClipToneCurveMidpoint, &brClipProcessingSettings::midpoint, true},
    {"Highlights", blackmagicRawClipToneCurveHighlights, &brClipProcessingSettings::highlights, true},
    {"Shadows", blackmagicRawClipToneCurveShadows, &brClipProcessingSettings::shadows, true},
    {"WhiteLvl", blackmagicRawClipToneCurveWhiteLevel, &brClipProcessingSettings::whiteLevel, true},
    {"BlackLvl", blackmagicRawClipToneCurveBlackLevel, &brClipProcessingSettings::blackLevel, true},
    {"Video BlackLvl", blackmagicRawClipToneCurveVideoBlackLevel, &brClipProcessingSettings::videoBlackLevel,
     true},
    {"Highlight Recovery", blackmagicRawClipHighlightRecovery, &brClipProcessingSettings::highlightRecovery},
    {"LutMode", blackmagicRawClipLUTMode, &brClipProcessingSettings::lutMode},
};
inline constexpr brFrameSetting brFrameSettings[] = {
    {"ISO", blackmagicRawFrameISO, &brFrameProcessingSettings::iso},
    {"Color Temp", blackmagicRawFrameWhiteBalanceKelvin, &brFrameProcessingSettings::colorTemp},
    {"Tint", blackmagicRawFrameWhiteBalanceTint, &brFrameProcessingSettings::tint},
    {"Exposure", blackmagicRawFrameExposure, &brFrameProcessingSettings::exposure},
};
