// The settings that a request can carry for the decoder's clip and frame processing.
#pragma once

#include <cstdint>

/// Texts are zero-padded UTF-8 names of the processing vocabulary; one that fills its field has no
/// terminator.
struct brClipProcessingSettings {
    uint16_t colorScience = 4;
    char gamut[64] = "Blackmagic Design";
    bool gamutCompression = false;
    char gamma[64] = "Blackmagic Design Film";
    float saturation = 1.0f;
    float contrast = 0.5f;
    float midpoint = 0.41f;
    float highlights = 1.0f;
    float shadows = 1.0f;
    float whiteLevel = 1.0f;
    float blackLevel = 0.0f;
    bool videoBlackLevel = false;
    bool highlightRecovery = false;
    char lutMode[12] = "Disabled";
};

struct brFrameProcessingSettings {
    uint32_t iso = 800;
    uint32_t colorTemp = 5500; ///< kelvin
    int16_t tint = 10;
    float exposure = 0.0f;  ///< stops
    double hostNumber = 0;  ///< kept for the host; never sent to the decoder
    uint32_t hostValue = 0; ///< kept for the host; never sent to the decoder
};

/// The gamma under which the tone-curve values are sent and compared.
inline constexpr char brCustomGamma[] = "Blackmagic Design Custom";
bool hasCustomGamma(const brClipProcessingSettings& settings);

/// Equality as requests are matched: texts up to their field's size, numbers exactly (a NaN never equal), the
/// tone curve only under the custom gamma.
bool sameSettings(const brClipProcessingSettings& a, const brClipProcessingSettings& b);
bool sameSettings(const brFrameProcessingSettings& a, const brFrameProcessingSettings& b);
