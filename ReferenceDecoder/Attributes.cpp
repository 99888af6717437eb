#include "Attributes.h"

#include <algorithm>
#include <cwchar>
#include <span>
#include <utility>

#include "Resources.h"

namespace reference {

namespace {

using Rule = ReferenceDecoderControl::AttributeRule;

/// An attribute's type, and either its range or the values to choose from.
struct Attribute {
    uint32_t code;
    VARTYPE type;
    double minimum = 0, maximum = 0;
    std::span<const wchar_t* const> choices = {};
    bool hasRange() const { return maximum > minimum; }
};

constexpr const wchar_t* kGamuts[] = {L"Blackmagic Design", L"Rec.709", L"Rec.2020"};
constexpr const wchar_t* kGammas[] = {L"Blackmagic Design Film", L"Blackmagic Design Video",
                                      L"Blackmagic Design Custom", L"Rec.709"};
constexpr const wchar_t* kLutModes[] = {L"Disabled", L"Embedded", L"Sidecar"};
constexpr uint32_t kISOs[] = {100, 200, 400, 800, 1600};

constexpr Attribute kClipAttributes[] = {
    {blackmagicRawClipColorScienceGen, VT_UI2, 4, 5},
    {blackmagicRawClipGamut, VT_BSTR, 0, 0, kGamuts},
    {blackmagicRawClipGamutCompression, VT_UI2, 0, 1},
    {blackmagicRawClipGamma, VT_BSTR, 0, 0, kGammas},
    {blackmagicRawClipToneCurveContrast, VT_R4, 0, 2},
    {blackmagicRawClipToneCurveSaturation, VT_R4, 0, 4},
    {blackmagicRawClipToneCurveMidpoint, VT_R4, 0, 1},
    {blackmagicRawClipToneCurveHighlights, VT_R4, 0, 2},
    {blackmagicRawClipToneCurveShadows, VT_R4, 0, 2},
    {blackmagicRawClipToneCurveWhiteLevel, VT_R4, 0, 2},
    {blackmagicRawClipToneCurveBlackLevel, VT_R4, -1, 1},
    {blackmagicRawClipToneCurveVideoBlackLevel, VT_UI2, 0, 1},
    {blackmagicRawClipHighlightRecovery, VT_UI2, 0, 1},
    {blackmagicRawClipLUTMode, VT_BSTR, 0, 0, kLutModes},
};

constexpr Attribute kFrameAttributes[] = {
    {blackmagicRawFrameISO, VT_UI4},
    {blackmagicRawFrameWhiteBalanceKelvin, VT_UI4, 2000, 50000},
    {blackmagicRawFrameWhiteBalanceTint, VT_I2, -150, 150},
    {blackmagicRawFrameExposure, VT_R4, -5, 5},
};

const Attribute* find(std::span<const Attribute> attributes, uint32_t code) {
    const auto found = std::find_if(attributes.begin(), attributes.end(),
                                    [&](const Attribute& attribute) { return attribute.code == code; });
    return found == attributes.end() ? nullptr : &*found;
}

/// How the attribute shall behave; all zero is as usual.
Rule ruleFor(uint32_t code) {
    const ReferenceDecoderControl& control = referenceDecoderControl();
    for (uint32_t i = 0; i < control.ruleCount; ++i)
        if (control.rules[i].code == code)
            return control.rules[i];
    return {};
}

double numberIn(const VARIANT& value) {
    switch (value.vt) {
    case VT_UI2:
        return value.uiVal;
    case VT_I2:
        return value.iVal;
    case VT_UI4:
        return value.ulVal;
    case VT_R4:
        return value.fltVal;
    default:
        return 0;
    }
}

VARIANT variantOf(VARTYPE type, double number) {
    VARIANT value{};
    value.vt = type;
    switch (type) {
    case VT_UI2:
        value.uiVal = static_cast<USHORT>(number);
        break;
    case VT_I2:
        value.iVal = static_cast<SHORT>(number);
        break;
    case VT_UI4:
        value.ulVal = static_cast<ULONG>(number);
        break;
    default:
        value.fltVal = static_cast<FLOAT>(number);
        break;
    }
    return value;
}

void record(uint32_t code, const VARIANT& value, HRESULT result) {
    ReferenceDecoderControl& control = referenceDecoderControl();
    const uint32_t index = control.sentAttributeCount++;
    if (index >= ReferenceDecoderControl::maximumAttributes)
        return;
    auto& sent = control.sentAttributes[index];
    sent = {code, value.vt, numberIn(value), {}, result};
    if (value.vt == VT_BSTR && value.bstrVal)
        std::copy_n(value.bstrVal, std::min(std::wcslen(value.bstrVal), std::size(sent.text) - 1), sent.text);
}

HRESULT set(std::span<const Attribute> attributes, uint32_t code, const VARIANT* value) {
    if (!value)
        return badArgument(E_POINTER);
    const Attribute* attribute = find(attributes, code);
    HRESULT result = ruleFor(code).setResult;
    if (!attribute)
        result = badArgument();
    else if (value->vt != attribute->type)
        result = badArgument(DISP_E_TYPEMISMATCH);
    record(code, *value, result);
    return result;
}

HRESULT range(std::span<const Attribute> attributes, uint32_t code, VARIANT* minimum, VARIANT* maximum,
              BOOL* isReadOnly) {
    const Attribute* attribute = find(attributes, code);
    if (!attribute)
        return badArgument();
    const Rule rule = ruleFor(code);
    if (rule.rangeResult != S_OK || !attribute->hasRange())
        return rule.rangeResult != S_OK ? rule.rangeResult : E_NOTIMPL;
    *minimum = variantOf(attribute->type, attribute->minimum);
    *maximum = variantOf(attribute->type, attribute->maximum);
    *isReadOnly = rule.isReadOnly != 0;
    return S_OK;
}

/// `array`, where given, takes at most `elementCount` values.
HRESULT list(std::span<const Attribute> attributes, uint32_t code, VARIANT* array, uint32_t capacity,
             uint32_t* elementCount, BOOL* isReadOnly) {
    const Attribute* attribute = find(attributes, code);
    if (!attribute)
        return badArgument();
    const Rule rule = ruleFor(code);
    if (FAILED(rule.listResult))
        return rule.listResult;
    const auto choices = attribute->choices;
    for (uint32_t i = 0; array && i < capacity && i < choices.size(); ++i) {
        array[i].vt = VT_BSTR;
        array[i].bstrVal = SysAllocString(choices[i]);
    }
    *elementCount = static_cast<uint32_t>(choices.size());
    *isReadOnly = rule.isReadOnly != 0;
    return rule.listResult;
}

/// The LUT on one side.
class LutBuffer {
public:
    explicit LutBuffer(BlackmagicRawResourceType type) : m_type(type) {
        createResource(sizeof(float) * 3 * 17 * 17 * 17, type, &m_resource);
    }
    ~LutBuffer() { release(); }
    LutBuffer(const LutBuffer&) = delete;
    LutBuffer& operator=(const LutBuffer&) = delete;
    void* get() const { return m_resource; }
    void release() noexcept {
        if (void* const resource = std::exchange(m_resource, nullptr))
            releaseResource(resource, m_type);
    }

private:
    const BlackmagicRawResourceType m_type;
    void* m_resource = nullptr;
};

/// A clip's 3D LUT, whose buffers go with the object.
class Post3DLut : public Object<"IBlackmagicRawPost3DLUT", IBlackmagicRawPost3DLUT> {
public:
    HRESULT STDMETHODCALLTYPE GetResourceGPU(void* context, void* commandQueue,
                                             BlackmagicRawResourceType* type, void** resource) override {
        return cross<"IBlackmagicRawPost3DLUT::GetResourceGPU">(
            [&] {
                if (context != gpuContext() || commandQueue != gpuCommandQueue())
                    return badArgument();
                *type = blackmagicRawResourceTypeBufferCUDA;
                *resource = m_device.get();
                return S_OK;
            },
            type, resource);
    }
    HRESULT STDMETHODCALLTYPE GetResourceCPU(void** resource) override {
        return cross<"IBlackmagicRawPost3DLUT::GetResourceCPU">(
            [&] {
                *resource = m_host.get();
                return S_OK;
            },
            resource);
    }

protected:
    void finish() noexcept override {
        m_host.release();
        m_device.release();
    }

private:
    LutBuffer m_host{blackmagicRawResourceTypeBufferCPU};
    LutBuffer m_device{blackmagicRawResourceTypeBufferCUDA};
};

} // namespace

HRESULT ClipAttributes::SetClipAttribute(BlackmagicRawClipProcessingAttribute attribute, VARIANT* value) {
    return cross<"IBlackmagicRawClipProcessingAttributes::SetClipAttribute">(
        [&] { return set(kClipAttributes, attribute, value); });
}

HRESULT ClipAttributes::GetClipAttributeRange(BlackmagicRawClipProcessingAttribute attribute,
                                              VARIANT* minimum, VARIANT* maximum, BOOL* isReadOnly) {
    return cross<"IBlackmagicRawClipProcessingAttributes::GetClipAttributeRange">(
        [&] { return range(kClipAttributes, attribute, minimum, maximum, isReadOnly); }, minimum, maximum,
        isReadOnly);
}

HRESULT ClipAttributes::GetClipAttributeList(BlackmagicRawClipProcessingAttribute attribute, VARIANT* array,
                                             uint32_t* elementCount, BOOL* isReadOnly) {
    const uint32_t capacity = elementCount ? *elementCount : 0;
    return cross<"IBlackmagicRawClipProcessingAttributes::GetClipAttributeList">(
        [&] { return list(kClipAttributes, attribute, array, capacity, elementCount, isReadOnly); },
        elementCount, isReadOnly);
}

HRESULT ClipAttributes::GetPost3DLUT(IBlackmagicRawPost3DLUT** lut) {
    return cross<"IBlackmagicRawClipProcessingAttributes::GetPost3DLUT">(
        [&] { return m_hasLut ? handOut(lut, new Post3DLut) : S_OK; }, lut);
}

HRESULT FrameAttributes::SetFrameAttribute(BlackmagicRawFrameProcessingAttribute attribute, VARIANT* value) {
    return cross<"IBlackmagicRawFrameProcessingAttributes::SetFrameAttribute">(
        [&] { return set(kFrameAttributes, attribute, value); });
}

HRESULT FrameAttributes::GetFrameAttributeRange(BlackmagicRawFrameProcessingAttribute attribute,
                                                VARIANT* minimum, VARIANT* maximum, BOOL* isReadOnly) {
    return cross<"IBlackmagicRawFrameProcessingAttributes::GetFrameAttributeRange">(
        [&] { return range(kFrameAttributes, attribute, minimum, maximum, isReadOnly); }, minimum, maximum,
        isReadOnly);
}

HRESULT FrameAttributes::GetFrameAttributeList(BlackmagicRawFrameProcessingAttribute attribute,
                                               VARIANT* array, uint32_t* elementCount, BOOL* isReadOnly) {
    const uint32_t capacity = elementCount ? *elementCount : 0;
    return cross<"IBlackmagicRawFrameProcessingAttributes::GetFrameAttributeList">(
        [&] { return list(kFrameAttributes, attribute, array, capacity, elementCount, isReadOnly); },
        elementCount, isReadOnly);
}

HRESULT FrameAttributes::GetISOList(uint32_t* array, uint32_t* elementCount, BOOL* isReadOnly) {
    const uint32_t capacity = elementCount ? *elementCount : 0;
    return cross<"IBlackmagicRawFrameProcessingAttributes::GetISOList">(
        [&]() -> HRESULT {
            const Rule rule = ruleFor(blackmagicRawFrameISO);
            if (rule.listResult != S_OK)
                return rule.listResult;
            if (array)
                std::copy_n(kISOs, std::min<size_t>(capacity, std::size(kISOs)), array);
            *elementCount = static_cast<uint32_t>(std::size(kISOs));
            *isReadOnly = rule.isReadOnly != 0;
            return S_OK;
        },
        elementCount, isReadOnly);
}

} // namespace reference
