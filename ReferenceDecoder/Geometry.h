#pragma once

#include "Object.h"

namespace reference {

/// How a clip shall be turned; a clip takes over what is set when it is opened.
class Geometry : public Object<"IBlackmagicRawClipGeometry", IBlackmagicRawClipGeometry> {
public:
    bool usesOrientation() const { return m_usesOrientation; }
    bool isFlippedVertically() const { return m_isFlippedVertically; }

    REFERENCE_DECODER_UNUSED(GetOrientationMode)
    HRESULT STDMETHODCALLTYPE SetOrientationMode(BlackmagicRawGeometryMode mode) override;
    REFERENCE_DECODER_UNUSED(GetHorizontalFlip)
    REFERENCE_DECODER_UNUSED(SetHorizontalFlip)
    REFERENCE_DECODER_UNUSED(GetVerticalFlip)
    HRESULT STDMETHODCALLTYPE SetVerticalFlip(BlackmagicRawGeometryMode mode) override;

private:
    std::atomic<bool> m_usesOrientation{false};
    std::atomic<bool> m_isFlippedVertically{false};
};

} // namespace reference
