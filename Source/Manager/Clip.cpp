#include "Clip.h"

#include <algorithm>
#include <utility>

#include "Failure.h"
#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"
#include "Utils/vdText.h"

using Microsoft::WRL::ComPtr;

namespace {

/// True when the text is at least one character and its last sequence is not cut off.
bool isWholeUtf8(std::string_view text) {
    size_t position = 0;
    while (position < text.size()) {
        const size_t length = utf8SequenceLength(static_cast<unsigned char>(text[position]));
        if (length == 0)
            break;
        position += length;
    }
    return position > 0 && position <= text.size();
}

/// Succeeded, and handed something out.
template <class Interface>
bool obtained(HRESULT hr, const ComPtr<Interface>& pointer) {
    return SUCCEEDED(hr) && pointer;
}

std::string sizeText(uint32_t width, uint32_t height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

} // namespace

vdBRAW_Clip::vdBRAW_Clip(uint64_t id, std::string filePath) : m_id(id), m_filePath(std::move(filePath)) {
    if (isWholeUtf8(m_filePath))
        m_filePathBstr = vdBstr(utf8ToUtf16(m_filePath));
}

vdBRAW_Clip::~vdBRAW_Clip() {
    if (m_isOpened)
        Close(false);
}

void vdBRAW_Clip::releaseLibraryObjects() {
    m_bmClipEx.Reset();
    m_bmClip.Reset();
}

vdStatus vdBRAW_Clip::open(IBlackmagicRaw* codec, IBlackmagicRawClipGeometry* geometry) {
    releaseLibraryObjects();
    HRESULT hr = E_INVALIDARG; // a path that is no text is never shown to the library
    if (BSTR path = m_filePathBstr.get())
        hr = geometry ? codec->OpenClipWithGeometry(path, geometry, &m_bmClip)
                      : codec->OpenClip(path, &m_bmClip);
    if (obtained(hr, m_bmClip))
        return {};
    releaseLibraryObjects();
    return failure("Impossible to open Clip with Library ! ", hr);
}

vdStatus vdBRAW_Clip::openAndInit(IBlackmagicRaw* codec, IBlackmagicRawClipGeometry* geometry) {
    vdLock lock(m_bmClipMutex, "m_bmClipMutex");
    if (const vdStatus status = open(codec, geometry); status.failed)
        return status;
    m_bmGeometry = geometry;
    m_isOpened = true;
    VD_LOG_INFO("Initializing Clip : " << m_id);
    vdStatus status = readFacts();
    if (!status.failed)
        status = queryClipEx();
    if (status.failed)
        releaseLibraryObjects();
    return status;
}

vdStatus vdBRAW_Clip::readFacts() {
    if (!m_resolutions.empty())
        VD_LOG_AS(vdLogLevel::error, "openAndInit",
                  "The clip is already initialized !! It should not be initialized twice !");
    bool sizeKnown = true;
    HRESULT hr = m_bmClip->GetWidth(&m_width);
    if (FAILED(hr)) {
        sizeKnown = false;
        VD_LOG_AS(vdLogLevel::error, "openAndInit", "Impossible to get Width !" << hresultText(hr));
    }
    hr = m_bmClip->GetHeight(&m_height);
    if (FAILED(hr)) {
        sizeKnown = false;
        VD_LOG_AS(vdLogLevel::error, "openAndInit", "Impossible to get Height !" << hresultText(hr));
    }
    hr = m_bmClip->GetFrameRate(&m_frameRate);
    if (FAILED(hr))
        return failure("Failed to get FrameRate from BM - ", hr);
    if (!(m_frameRate > 0.0f)) // a NaN is not greater than anything
        return vdFailure("FrameRate has a weird value : " + std::to_string(m_frameRate));
    hr = m_bmClip->GetFrameCount(&m_frameCount);
    if (FAILED(hr))
        return failure("Failed to get FrameCount from BM - ", hr);
    return readResolutions(sizeKnown);
}

vdStatus vdBRAW_Clip::readResolutions(bool sizeKnown) {
    ComPtr<IBlackmagicRawClipResolutions> resolutions;
    HRESULT hr = m_bmClip.As(&resolutions);
    if (!obtained(hr, resolutions))
        return failure("Impossible to query Resolutions ! ", hr);
    uint32_t count = 0;
    hr = resolutions->GetResolutionCount(&count);
    if (FAILED(hr))
        return failure("Impossible to get ResolutionCount ! ", hr);
    VD_LOG_AS(vdLogLevel::info, "openAndInit", "Resolutions found : " << count);
    m_resolutions.clear();
    for (uint32_t index = 0; index < count; ++index) {
        brResolution entry;
        if (const vdStatus status = readResolution(*resolutions.Get(), index, entry); status.failed)
            return status;
        if (!sizeKnown && entry.scale == blackmagicRawResolutionScaleFull) {
            VD_LOG_AS(vdLogLevel::warn, "openAndInit",
                      "Getting Width or Height failed, so we get them using Resolution with Scale Full !");
            m_width = entry.width;
            m_height = entry.height;
        }
        m_resolutions.push_back(entry);
    }
    return {};
}

vdStatus vdBRAW_Clip::readResolution(IBlackmagicRawClipResolutions& resolutions, uint32_t index,
                                     brResolution& entry) {
    HRESULT hr = resolutions.GetResolution(index, &entry.width, &entry.height);
    if (FAILED(hr))
        return failure("Impossible to get Resolution from index " + std::to_string(index) + " - ", hr);
    VD_LOG_AS(vdLogLevel::info, "openAndInit", "    - " << sizeText(entry.width, entry.height));
    hr = resolutions.GetClosestScaleForResolution(entry.width, entry.height, &entry.scale);
    if (FAILED(hr))
        return failure("Impossible to get ClosestScale from Resolution ! ", hr);
    uint32_t width = 0;
    uint32_t height = 0;
    hr = resolutions.GetClosestResolutionForScale(entry.scale, &width, &height);
    if (FAILED(hr))
        return failure("Impossible to get Closest Resolution For Scale ! ", hr);
    if (width != entry.width || height != entry.height)
        return vdFailure("Scale from Resolution does not return the same Resolution ! SecurityRes : " +
                         sizeText(width, height));
    return {};
}

vdStatus vdBRAW_Clip::queryClipEx() {
    const HRESULT hr = m_bmClip.As(&m_bmClipEx);
    if (!obtained(hr, m_bmClipEx))
        return failure("Failed to get Raw Clip Ex from BM - ", hr);
    return {};
}

bool vdBRAW_Clip::doesNeedToBeReloaded() {
    vdLock lock(m_bmClipMutex, "m_bmClipMutex");
    if (m_bmClip && m_bmClipEx) {
        uint32_t size = 0;
        if (FAILED(m_bmClipEx->GetBitStreamSizeBytes(0, &size))) {
            VD_LOG_WARN("GetBitStreamSizeBytes call returned E_FAIL => Need to reload");
            return true;
        }
        VD_LOG_INFO("No need to reload Clip");
        return false;
    }
    if (m_isOpened)
        VD_LOG_ERROR("Clip is opened but has BM var null ! Reloading Clip");
    else
        VD_LOG_INFO("Clip has been closed and need to be reloaded");
    return true;
}

vdStatus vdBRAW_Clip::reload(IBlackmagicRaw* codec) {
    vdLock lock(m_bmClipMutex, "m_bmClipMutex");
    m_attachment.reset();
    m_textPairs.clear();
    vdStatus status = open(codec, m_bmGeometry.Get());
    if (!status.failed)
        status = queryClipEx();
    if (status.failed)
        releaseLibraryObjects();
    else
        m_isOpened = true;
    return status;
}

int32_t vdBRAW_Clip::Close(bool keepAttachment) {
    vdLock lock(m_bmClipMutex, "m_bmClipMutex");
    VD_LOG_INFO("[C" << m_id << "]"
                     << "Closing Clip");
    if (m_bmClip && m_isOpened)
        releaseLibraryObjects();
    if (!keepAttachment)
        m_attachment.reset();
    m_isOpened = false;
    return 0;
}
