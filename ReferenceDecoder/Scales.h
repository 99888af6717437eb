// The resolution scales that clips can be decoded at, in the order in which clips list them.
#pragma once

#include <BlackmagicRawAPI.h>

namespace reference {

struct Scale {
    BlackmagicRawResolutionScale code;
    uint32_t factor; ///< source pixels per pixel of the result, each way
};

inline constexpr Scale kScales[] = {
    {blackmagicRawResolutionScaleFull, 1},
    {blackmagicRawResolutionScaleHalf, 2},
    {blackmagicRawResolutionScaleQuarter, 4},
    {blackmagicRawResolutionScaleEighth, 8},
};

/// Null for an unknown code.
constexpr const Scale* findScale(BlackmagicRawResolutionScale code) {
    for (const Scale& scale : kScales)
        if (scale.code == code)
            return &scale;
    return nullptr;
}

} // namespace reference
