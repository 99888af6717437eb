#pragma once

#include "Object.h"
#include "Pixels.h"
#include "PnmStream.h"

namespace reference {

/// A frame whose bytes were read; carries what its decoding shall give.
class Frame : public Object<"IBlackmagicRawFrame", IBlackmagicRawFrame> {
public:
    Frame(const PictureHeader& header, Turning turning) : m_header(header), m_turning(turning) {}

    const PictureHeader& header() const { return m_header; }
    Turning turning() const { return m_turning; }
    uint32_t factor() const { return m_factor; }
    BlackmagicRawResourceFormat format() const { return m_format; }

    HRESULT STDMETHODCALLTYPE
    CloneFrameProcessingAttributes(IBlackmagicRawFrameProcessingAttributes** attributes) override;
    HRESULT STDMETHODCALLTYPE SetResolutionScale(BlackmagicRawResolutionScale scale) override;
    HRESULT STDMETHODCALLTYPE SetResourceFormat(BlackmagicRawResourceFormat format) override;

private:
    const PictureHeader m_header;
    const Turning m_turning;
    uint32_t m_factor = 1;
    BlackmagicRawResourceFormat m_format = blackmagicRawResourceFormatRGBAU8;
};

} // namespace reference
