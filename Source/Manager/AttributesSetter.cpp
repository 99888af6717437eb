#include "AttributesSetter.h"

#include <cstring>
#include <string>
#include <variant>

#include "Failure.h"
#include "ProcessingAttributes.h"
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

template <class Value>
Value sendable(const Value& value) {
    return value;
}
template <std::size_t size>
BSTR sendable(const char (&field)[size]) {
    return wideText(field);
}

/// Sends one value after the other until one fails: set(value, row, status).
template <class Settings, class Rows, class Set>
vdStatus sendAll(const Rows& rows, const Settings& settings, bool withToneCurve, const Set& set) {
    vdStatus status;
    for (const auto& row : rows) {
        if (row.isOfToneCurve && !withToneCurve)
            continue;
        std::visit([&](auto field) { set(sendable(settings.*field), row, status); }, row.field);
        if (status.failed)
            break;
    }
    return status;
}
} // namespace

vdStatus applyClipSettings(IBlackmagicRawClipProcessingAttributes* attributes,
                           const brClipProcessingSettings& settings) {
    return sendAll(brClipSettings, settings, hasCustomGamma(settings),
                   [&](auto value, const brClipSetting& row, vdStatus& status) {
                       setAttribute(value, {row.code, noFrameCode, row.name}, attributes, nullptr, status);
                   });
}

vdStatus applyFrameSettings(IBlackmagicRawFrameProcessingAttributes* attributes,
                            const brFrameProcessingSettings& settings) {
    return sendAll(brFrameSettings, settings, true,
                   [&](auto value, const brFrameSetting& row, vdStatus& status) {
                       setAttribute(value, {noClipCode, row.code, row.name}, nullptr, attributes, status);
                   });
}
