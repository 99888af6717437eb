#include "Geometry.h"

namespace reference {

HRESULT Geometry::SetOrientationMode(BlackmagicRawGeometryMode mode) {
    return cross<"IBlackmagicRawClipGeometry::SetOrientationMode">([&] {
        const bool isKnown = mode == blackmagicRawGeometryDisabled || mode == blackmagicRawGeometryMetadata;
        return isKnown ? S_OK : badArgument();
    });
}

HRESULT Geometry::SetVerticalFlip(BlackmagicRawGeometryMode mode) {
    return cross<"IBlackmagicRawClipGeometry::SetVerticalFlip">([&] {
        if (mode != blackmagicRawGeometryDisabled && mode != blackmagicRawGeometryFlipVertical)
            return badArgument();
        m_isFlippedVertically = mode == blackmagicRawGeometryFlipVertical;
        return S_OK;
    });
}

} // namespace reference
