#include "Geometry.h"

namespace reference {

HRESULT Geometry::SetOrientationMode(BlackmagicRawGeometryMode mode) {
    return cross<"IBlackmagicRawClipGeometry::SetOrientationMode">([&] {
        if (mode != blackmagicRawGeometryDisabled && mode != blackmagicRawGeometryMetadata)
            return badArgument();
        m_usesOrientation = mode == blackmagicRawGeometryMetadata;
        return S_OK;
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
