#include "Frame.h"

#include "Attributes.h"
#include "Pixels.h"
#include "Scales.h"

namespace reference {

HRESULT Frame::CloneFrameProcessingAttributes(IBlackmagicRawFrameProcessingAttributes** attributes) {
    return cross<"IBlackmagicRawFrame::CloneFrameProcessingAttributes">(
        [&] { return handOut(attributes, new FrameAttributes); }, attributes);
}

HRESULT Frame::SetResolutionScale(BlackmagicRawResolutionScale scale) {
    return cross<"IBlackmagicRawFrame::SetResolutionScale">([&] {
        const Scale* known = findScale(scale);
        if (!known)
            return badArgument();
        m_factor = known->factor;
        return S_OK;
    });
}

HRESULT Frame::SetResourceFormat(BlackmagicRawResourceFormat format) {
    return cross<"IBlackmagicRawFrame::SetResourceFormat">([&] {
        if (!findResourceLayout(format))
            return badArgument();
        m_format = format;
        return S_OK;
    });
}

} // namespace reference
