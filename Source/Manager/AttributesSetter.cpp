#include "AttributesSetter.h"

#include <cstring>
#include <string>

#include "Failure.h"
#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"
#include "Utils/vdText.h"

namespace {
/// A VARIANT that is cleared at the end of its scope, with what it holds.
struct Variant : VARIANT {
    Variant() { VariantInit(this); }
    ~Variant() { VariantClear(this); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;
};

/// The back of every setAttribute. The objects are those that the value's type is written to; of two, the
/// clip's comes first.
void setVariant(Variant& value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status) {
    const std::string name(attribute.name);
    if (clip == nullptr && frame == nullptr) {
        status = vdFailure("Impossible to set Attribute for " + name + " !! Both processingAttr are nullptr");
        return;
    }
    HRESULT hr = E_OUTOFMEMORY;
    if (value.vt != VT_BSTR || value.bstrVal != nullptr) {
        hr = clip != nullptr ? clip->SetClipAttribute(attribute.clipCode, &value)
                             : frame->SetFrameAttribute(attribute.frameCode, &value);
        if (hr == S_OK)
            return;
        bool isReadOnly = false;
        if (checkAttributeReadOnly(clip, frame, attribute, isReadOnly) == S_OK && isReadOnly) {
            VD_LOG_AS(vdLogLevel::info, "setAttribute",
                      "Setting " << name << " Attribute failed but normal : parameter is ReadOnly");
            return;
        }
    }
    status = failure("Setting " + name + " Attribute failed : ", hr);
}
} // namespace

void setAttribute(uint16_t value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes*, vdStatus& status) {
    Variant variant;
    variant.vt = VT_UI2;
    variant.uiVal = value;
    setVariant(variant, attribute, clip, nullptr, status);
}

void setAttribute(BSTR value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes*, vdStatus& status) {
    Variant variant;
    variant.vt = VT_BSTR;
    variant.bstrVal = value;
    setVariant(variant, attribute, clip, nullptr, status);
}

void setAttribute(bool value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status) {
    setAttribute(static_cast<uint16_t>(value ? 1 : 0), attribute, clip, frame, status);
}

void setAttribute(float value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status) {
    Variant variant;
    variant.vt = VT_R4;
    variant.fltVal = value;
    setVariant(variant, attribute, clip, frame, status);
}

void setAttribute(uint32_t value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes*,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status) {
    Variant variant;
    variant.vt = VT_UI4;
    variant.ulVal = value;
    setVariant(variant, attribute, nullptr, frame, status);
}

void setAttribute(int16_t value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes*,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status) {
    Variant variant;
    variant.vt = VT_I2;
    variant.iVal = value;
    setVariant(variant, attribute, nullptr, frame, status);
}

HRESULT checkAttributeReadOnly(IBlackmagicRawClipProcessingAttributes* clip,
                               IBlackmagicRawFrameProcessingAttributes* frame, const brAttribute& attribute,
                               bool& isReadOnly) {
    isReadOnly = false;
    Variant minimum;
    Variant maximum;
    uint32_t elementCount = 0;
    BOOL flag = FALSE;
    HRESULT hr = S_OK;
    if (clip != nullptr) {
        hr = clip->GetClipAttributeRange(attribute.clipCode, &minimum, &maximum, &flag);
        if (hr != S_OK)
            hr = clip->GetClipAttributeList(attribute.clipCode, nullptr, &elementCount, &flag);
    } else if (frame != nullptr && attribute.frameCode == blackmagicRawFrameISO) {
        hr = frame->GetISOList(nullptr, &elementCount, &flag);
    } else if (frame != nullptr) {
        hr = frame->GetFrameAttributeRange(attribute.frameCode, &minimum, &maximum, &flag);
        if (hr != S_OK)
            hr = frame->GetFrameAttributeList(attribute.frameCode, nullptr, &elementCount, &flag);
    } else {
        VD_LOG_ERROR("Clip and Frame Processing Attribute are nullptr !!");
        return S_OK;
    }
    if (hr != S_OK)
        VD_LOG_ERROR("Call to GetClipAttributeRange for "
                     << attribute.name << " - IsReadOnly impossible to get : " << hresultText(hr));
    isReadOnly = flag != FALSE;
    return hr;
}

namespace {
/// What stands on the side of an attribute that is not meant.
constexpr auto noFrameCode = blackmagicRawFrameISO;
constexpr auto noClipCode = blackmagicRawClipColorScienceGen;

/// A string for setAttribute to take over, from a text field that need not be terminated.
template <std::size_t size>
BSTR wideText(const char (&field)[size]) {
    const std::wstring wide = utf8ToUtf16({field, strnlen(field, size)});
    return SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
}

/// Sends one value after the other until one fails.
class ClipSender {
public:
    explicit ClipSender(IBlackmagicRawClipProcessingAttributes* attributes) : m_attributes(attributes) {}

    template <class Value>
    void send(std::string_view name, BlackmagicRawClipProcessingAttribute code, Value value) {
        if (!m_status.failed)
            setAttribute(value, {code, noFrameCode, name}, m_attributes, nullptr, m_status);
    }
    template <std::size_t size>
    void sendText(std::string_view name, BlackmagicRawClipProcessingAttribute code,
                  const char (&field)[size]) {
        if (!m_status.failed)
            send(name, code, wideText(field));
    }
    const vdStatus& status() const { return m_status; }

private:
    IBlackmagicRawClipProcessingAttributes* m_attributes;
    vdStatus m_status;
};

class FrameSender {
public:
    explicit FrameSender(IBlackmagicRawFrameProcessingAttributes* attributes) : m_attributes(attributes) {}

    template <class Value>
    void send(std::string_view name, BlackmagicRawFrameProcessingAttribute code, Value value) {
        if (!m_status.failed)
            setAttribute(value, {noClipCode, code, name}, nullptr, m_attributes, m_status);
    }
    const vdStatus& status() const { return m_status; }

private:
    IBlackmagicRawFrameProcessingAttributes* m_attributes;
    vdStatus m_status;
};
} // namespace

vdStatus applyClipSettings(IBlackmagicRawClipProcessingAttributes* attributes,
                           const brClipProcessingSettings& settings) {
    ClipSender sender(attributes);
    sender.send("ColorScience", blackmagicRawClipColorScienceGen, settings.colorScience);
    sender.sendText("Gamut", blackmagicRawClipGamut, settings.gamut);
    sender.send("Gamut Compression", blackmagicRawClipGamutCompression, settings.gamutCompression);
    sender.sendText("Gamma", blackmagicRawClipGamma, settings.gamma);
    if (hasCustomGamma(settings)) {
        sender.send("Contrast", blackmagicRawClipToneCurveContrast, settings.contrast);
        sender.send("Saturation", blackmagicRawClipToneCurveSaturation, settings.saturation);
        sender.send("Midpoint", blackmagicRawClipToneCurveMidpoint, settings.midpoint);
        sender.send("Highlights", blackmagicRawClipToneCurveHighlights, settings.highlights);
        sender.send("Shadows", blackmagicRawClipToneCurveShadows, settings.shadows);
        sender.send("WhiteLvl", blackmagicRawClipToneCurveWhiteLevel, settings.whiteLevel);
        sender.send("BlackLvl", blackmagicRawClipToneCurveBlackLevel, settings.blackLevel);
        sender.send("Video BlackLvl", blackmagicRawClipToneCurveVideoBlackLevel, settings.videoBlackLevel);
    }
    sender.send("Highlight Recovery", blackmagicRawClipHighlightRecovery, settings.highlightRecovery);
    sender.sendText("LutMode", blackmagicRawClipLUTMode, settings.lutMode);
    return sender.status();
}

vdStatus applyFrameSettings(IBlackmagicRawFrameProcessingAttributes* attributes,
                            const brFrameProcessingSettings& settings) {
    FrameSender sender(attributes);
    sender.send("ISO", blackmagicRawFrameISO, settings.iso);
    sender.send("Color Temp", blackmagicRawFrameWhiteBalanceKelvin, settings.colorTemp);
    sender.send("Tint", blackmagicRawFrameWhiteBalanceTint, settings.tint);
    sender.send("Exposure", blackmagicRawFrameExposure, settings.exposure);
    return sender.status();
}
