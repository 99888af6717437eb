// The names, choices and ranges of the decoder's processing settings, for whoever offers them to a user.
//
// A name's place in its list is its code. The settings records' texts are names from these lists.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "ProcessingSettings.h"

inline constexpr std::array<std::string_view, 2> brColorScienceNames = {"Version 4", "Version 5"};
/// The decoder's generation number behind each version.
inline constexpr std::array<uint16_t, 2> brColorScienceGenerations = {4, 5};

inline constexpr std::array<std::string_view, 14> brGamutNames = {
    "Blackmagic Design",      "Rec.709",           "Rec.2020",           "DCI-P3 D65",
    "DCI-P3 Theater",         "ACES AP0",          "ACES AP1",           "CIE 1931 XYZ D65",
    "CIE 1931 XYZ D50 (PCS)", "V-Gamut",           "Canon Cinema Gamut", "ARRI Wide Gamut 3",
    "DaVinci Wide Gamut",     "ARRI Wide Gamut 4",
};

inline constexpr std::array<std::string_view, 16> brGammaNames = {
    "Blackmagic Design Film",
    "Blackmagic Design Video",
    "Blackmagic Design Extended Video",
    brCustomGamma,
    "Linear",
    "Rec.2100 Hybrid Log Gamma",
    "Rec.2100 ST2084 (PQ)",
    "ACEScct",
    "Rec.709",
    "V-Log",
    "Canon Log2",
    "N-Log",
    "ARRI LogC3",
    "DaVinci Intermediate",
    "L-Log",
    "ARRI LogC4",
};

/// "Fluoresent" is spelled as hosts and presets know it.
inline constexpr std::array<std::string_view, 8> brWhiteBalanceNames = {
    "AsShot", "Daylight", "Cloudy", "Shade", "Tungsten", "Fluoresent", "Flash", "Custom",
};

struct brWhiteBalance {
    int32_t preset; ///< place in brWhiteBalanceNames
    int32_t kelvin;
    int16_t tint;
};
/// "AsShot" and "Custom" carry no values of their own.
inline constexpr std::array<brWhiteBalance, 8> brWhiteBalances = {{
    {0, 0, 0},
    {1, 5500, 10},
    {2, 6500, 10},
    {3, 7500, 10},
    {4, 2850, 0},
    {5, 3800, 21},
    {6, 5500, 0},
    {7, 0, 0},
}};

inline constexpr std::array<std::string_view, 2> brLutSourceNames = {"Embedded", "Sidecar"};
inline constexpr std::array<std::string_view, 5> brIsoNames = {"200", "400", "800", "1200", "12000"};
inline constexpr std::array<std::string_view, 4> brPresetKindNames = {"BRAW Default", "Camera Metadata",
                                                                      "Custom A", "Custom B"};

enum class brParameterKind : uint32_t { number = 0, onOff = 1, choice = 2 };

/// One processing setting as a user sees it. For a choice the default is a code of its list.
struct brParameter {
    std::string_view name;
    brParameterKind kind = brParameterKind::number;
    double defaultValue = 0;
    double minimum = 0; ///< numbers only
    double maximum = 0; ///< numbers only
    // The three figures without a name are the hosts' own; nothing here reads them.
    uint32_t hostFlag = 0;
    std::span<const std::string_view> choices = {}; ///< choices only
    double hostFigureA = 0;
    double hostFigureB = 0.5;
};

namespace brVocabularyDetail {
constexpr brParameter number(std::string_view name, double defaultValue, double minimum, double maximum,
                             uint32_t hostFlag = 1, double hostFigureA = 0, double hostFigureB = 5) {
    return {name,       brParameterKind::number, defaultValue, minimum, maximum, hostFlag, {}, hostFigureA,
            hostFigureB};
}
constexpr brParameter onOff(std::string_view name) {
    return {.name = name, .kind = brParameterKind::onOff};
}
constexpr brParameter choice(std::string_view name, std::span<const std::string_view> choices) {
    return {.name = name, .kind = brParameterKind::choice, .choices = choices};
}
} // namespace brVocabularyDetail

inline constexpr std::array<brParameter, 20> brParameters = {
    brVocabularyDetail::choice("Color Science", brColorScienceNames),
    brVocabularyDetail::choice("Color Space (Gamut)", brGamutNames),
    brVocabularyDetail::onOff("Gamut Compression"),
    brVocabularyDetail::choice("ISO", brIsoNames),
    brVocabularyDetail::number("Exposure", 0.0, -5.0, 5.0),
    brVocabularyDetail::onOff("Highlight Recovery"),
    brVocabularyDetail::onOff("LUT Enabled"),
    brVocabularyDetail::choice("LUT Mode", brLutSourceNames),
    brVocabularyDetail::choice("White Balance Preset", brWhiteBalanceNames),
    brVocabularyDetail::number("Color Temp", 5500, 2000, 50000, 2, 8000, 0.8),
    brVocabularyDetail::number("Tint", 10, -150, 150, 0),
    brVocabularyDetail::choice("Gamma", brGammaNames),
    brVocabularyDetail::number("Saturation", 1.0, 0.0, 4.0),
    brVocabularyDetail::number("Contrast", 0.5, 0.002, 1.998),
    brVocabularyDetail::number("Midpoint", 0.41, 0.0, 1.0),
    brVocabularyDetail::number("Highlights", 1.0, 0.0, 1.998),
    brVocabularyDetail::number("Shadows", 1.0, 0.002, 2.0),
    brVocabularyDetail::number("White Level", 1.0, 0.0, 2.0),
    brVocabularyDetail::number("Black Level", 0.0, -1.0, 1.0),
    brVocabularyDetail::onOff("Use Video Black Level"),
};

namespace brVocabularyDetail {
constexpr bool startsAsTable(std::size_t parameter, double value) {
    const double difference = brParameters[parameter].defaultValue - value;
    return difference < 1e-6 && difference > -1e-6;
}
constexpr brClipProcessingSettings clip;
constexpr brFrameProcessingSettings frame;
// A record that nobody changed carries what the table calls default.
static_assert(std::string_view(clip.gamut) == brGamutNames[0] &&
              std::string_view(clip.gamma) == brGammaNames[0]);
static_assert(clip.colorScience == brColorScienceGenerations[0]);
static_assert(startsAsTable(4, frame.exposure) && startsAsTable(9, frame.colorTemp) &&
              startsAsTable(10, frame.tint));
static_assert(startsAsTable(12, clip.saturation) && startsAsTable(13, clip.contrast) &&
              startsAsTable(14, clip.midpoint) && startsAsTable(15, clip.highlights) &&
              startsAsTable(16, clip.shadows) && startsAsTable(17, clip.whiteLevel) &&
              startsAsTable(18, clip.blackLevel));
} // namespace brVocabularyDetail
