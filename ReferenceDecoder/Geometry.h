#pragma once

#include "Object.h"

namespace reference {

/// How a clip shall be turned; a clip takes over what is set when it is opened.
class Geometry : public Object<"IBlackmagicRawClipGeometry", IBlackmagicRawClipGeometry> {
public:
    bool usesOrientation() const { return m_usesOrientation; }
    bool isFlippedVertically() const { return m_isFlippedVertically; }

    HRESULT STDMETHODCALLTYPE SetOrientationMode(BlackmagicRawGeometryMode mode) override;
    HRESULT STDMETHODCALLTYPE SetVerticalFlip(BlackmagicRawGeometryMode mode) override;

private:
    std::atomic<bool> m_usesOrientation{false};
    std::atomic<bool> m_isFlippedVertically{false};
};

} // namespace reference
