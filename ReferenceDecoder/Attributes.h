// Processing attributes: what a clip or frame shall look like. They are checked and recorded in the session's
// block, where rules can make single ones refuse; pictures are not changed by them.
#pragma once

#include "Object.h"

namespace reference {

class ClipAttributes
    : public Object<"IBlackmagicRawClipProcessingAttributes", IBlackmagicRawClipProcessingAttributes> {
public:
    explicit ClipAttributes(bool hasLut) : m_hasLut(hasLut) {}

    HRESULT STDMETHODCALLTYPE SetClipAttribute(BlackmagicRawClipProcessingAttribute attribute,
                                               VARIANT* value) override;
    HRESULT STDMETHODCALLTYPE GetClipAttributeRange(BlackmagicRawClipProcessingAttribute attribute,
                                                    VARIANT* minimum, VARIANT* maximum,
                                                    BOOL* isReadOnly) override;
    HRESULT STDMETHODCALLTYPE GetClipAttributeList(BlackmagicRawClipProcessingAttribute attribute,
                                                   VARIANT* array, uint32_t* elementCount,
                                                   BOOL* isReadOnly) override;
    HRESULT STDMETHODCALLTYPE GetPost3DLUT(IBlackmagicRawPost3DLUT** lut) override;

private:
    const bool m_hasLut;
};

class FrameAttributes
    : public Object<"IBlackmagicRawFrameProcessingAttributes", IBlackmagicRawFrameProcessingAttributes> {
public:
    HRESULT STDMETHODCALLTYPE SetFrameAttribute(BlackmagicRawFrameProcessingAttribute attribute,
                                                VARIANT* value) override;
    HRESULT STDMETHODCALLTYPE GetFrameAttributeRange(BlackmagicRawFrameProcessingAttribute attribute,
                                                     VARIANT* minimum, VARIANT* maximum,
                                                     BOOL* isReadOnly) override;
    HRESULT STDMETHODCALLTYPE GetFrameAttributeList(BlackmagicRawFrameProcessingAttribute attribute,
                                                    VARIANT* array, uint32_t* elementCount,
                                                    BOOL* isReadOnly) override;
    HRESULT STDMETHODCALLTYPE GetISOList(uint32_t* array, uint32_t* elementCount, BOOL* isReadOnly) override;
};

} // namespace reference
