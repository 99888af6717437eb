#include "Request.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <limits>

#include "AttributesSetter.h"
#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"

namespace {

std::atomic<uint64_t> g_nextRequestId{0};

struct PixelFormatRow {
    std::string_view name;
    uint32_t bytesPerPixel;
};

constexpr PixelFormatRow pixelFormats[] = {
    {"-NONE-", 0},     {"ARGB_8_LOW", 4},  {"ARGB_16_LOW", 8},  {"ARGB_32_LOW", 16},
    {"BGRA_8_LOW", 4}, {"BGRA_16_LOW", 8}, {"BGRA_32_LOW", 16}, {"ARGB_8_UP", 4},
    {"ARGB_16_UP", 8}, {"ARGB_32_UP", 16}, {"BGRA_16_UP", 8},   {"BGRA_32_UP", 16},
    {"RGBA_8_UP", 4},  {"BGRA_8_UP", 4},   {"RGB_8_UP", 3},     {"-NONE-", 0},
};

float scaleOf(const brScaleRequest& request) {
    if (request.scale == 0 && request.asked != 0)
        return static_cast<float>(request.full) / static_cast<float>(request.asked);
    return request.scale;
}

float ratio(uint32_t full, uint32_t reduced) {
    return reduced == 0 ? 0 : static_cast<float>(full) / static_cast<float>(reduced);
}

int32_t toPixel(int64_t position) {
    constexpr int64_t lowest = std::numeric_limits<int32_t>::min();
    constexpr int64_t highest = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp(position, lowest, highest));
}

/// position * to / from, rounded down or up. In whole numbers: a quotient that is not exact would round an
/// edge of the picture to the pixel beyond it.
int32_t scaledDown(int32_t position, uint32_t to, uint32_t from) {
    const int64_t product = int64_t{position} * to;
    return toPixel(product / from - (product % from < 0));
}
int32_t scaledUp(int32_t position, uint32_t to, uint32_t from) {
    const int64_t product = int64_t{position} * to;
    return toPixel(product / from + (product % from > 0));
}

/// The smallest of the clip's resolutions that shrinks by no more than asked in either direction, or null. A
/// decoder may list them in any order.
const brResolution* smallestSufficient(const vdBRAW_Clip& clip, float sx, float sy) {
    const auto area = [](const brResolution& entry) { return uint64_t{entry.width} * entry.height; };
    const brResolution* smallest = nullptr;
    for (auto entry = clip.m_resolutions.rbegin(); entry != clip.m_resolutions.rend(); ++entry)
        if (ratio(clip.m_width, entry->width) <= sx && ratio(clip.m_height, entry->height) <= sy &&
            (!smallest || area(*entry) < area(*smallest)))
            smallest = &*entry;
    return smallest;
}

std::string scaleName(BlackmagicRawResolutionScale scale) {
    std::string name;
    for (int shift = 24; shift >= 0; shift -= 8)
        name += static_cast<char>(scale >> shift & 0xFF);
    return name;
}

} // namespace

std::string pixelFormatName(brPixelFormat format) {
    const auto value = static_cast<size_t>(format);
    return value < std::size(pixelFormats) ? std::string(pixelFormats[value].name) : std::to_string(value);
}

uint32_t pixelFormatBytes(brPixelFormat format) {
    const auto value = static_cast<size_t>(format);
    return value < std::size(pixelFormats) ? pixelFormats[value].bytesPerPixel : 0;
}

vdBRAW_Request::vdBRAW_Request() : m_requestId(g_nextRequestId++) {}

vdBRAW_Request::~vdBRAW_Request() {
    // The buffers keep the library loaded, so all else that is the library's goes before them.
    m_clipProcessingAttributes.Reset();
    m_clipInUse.Reset();
    m_bufferManager.reset();
}

int vdBRAW_Request::onFrameRead(IBlackmagicRawFrame*) {
    return 0;
}

int vdBRAW_Request::HandleError(uint32_t code, HRESULT hr, std::string_view message, bool unlock) noexcept {
    std::string text;
    try {
        text.append("(").append(std::to_string(code)).append(") ").append(message);
        if (hr != S_OK)
            text += hresultText(hr);
    } catch (...) {
        text.clear();
    }
    VD_LOG_ERROR(identity() << text);
    m_errorMessage = std::move(text);
    m_errorCode = code;
    m_isFinished = true;
    onFinished();
    if (unlock)
        m_mutex.unlock();
    notifyListener();
    return 0;
}

void vdBRAW_Request::notifyListener() noexcept {
    try {
        if (m_listener)
            m_listener(*this);
    } catch (...) {
        VD_LOG_ERROR(identity() << "The listener failed");
    }
}

void vdBRAW_Request::giveBackClip() noexcept {
    Microsoft::WRL::ComPtr<IBlackmagicRawClipEx> clip; // goes after the lock
    vdLock lock(m_mutex, "request->m_mutex");
    if (!m_keptByJob)
        clip.Swap(m_clipInUse);
}

vdStatus vdBRAW_Request::onProcessComplete() {
    return {};
}

bool vdBRAW_Request::isSameRequest(const vdBRAW_Request& other) const {
    const bool sameQueue =
        m_queueId == other.m_queueId || m_queueId == brAnyQueueId || other.m_queueId == brAnyQueueId;
    if (m_frameIndex != other.m_frameIndex || m_clipId != other.m_clipId || !sameQueue ||
        m_resolutionScale != other.m_resolutionScale || m_pixelFormat != other.m_pixelFormat ||
        m_isSubmitted != other.m_isSubmitted || m_hasCustomSettings != other.m_hasCustomSettings)
        return false;
    return !m_hasCustomSettings || (sameSettings(m_clipSettings, other.m_clipSettings) &&
                                    sameSettings(m_frameSettings, other.m_frameSettings));
}

vdStatus vdBRAW_Request::setScaleAndDimensions(const vdBRAW_Clip& clip, const brScaleRequest& x,
                                               const brScaleRequest& y, const brRect& rect) {
    m_width = static_cast<uint32_t>(rect.right) - static_cast<uint32_t>(rect.left);
    m_height = static_cast<uint32_t>(rect.bottom) - static_cast<uint32_t>(rect.top);
    m_renderRect = rect;
    const float sx = scaleOf(x);
    const float sy = scaleOf(y);
    if (sx == 0 || sy == 0) {
        constexpr std::string_view message = "setScaleAndDimensions - downscale num is 0 !";
        VD_LOG_ERROR(identity() << message);
        return vdFailure(message);
    }
    const brResolution* entry = smallestSufficient(clip, sx, sy);
    m_isOver = !entry;
    if (entry) {
        m_resolutionScale = entry->scale;
        m_downscale = false;
        takeResolution(*entry);
    } else {
        m_resolutionScale = blackmagicRawResolutionScaleFull;
        VD_LOG_ERROR(identity() << "Dimensions asked bigger than Full Size ! Look for OVER in log.");
    }
    VD_LOG_INFO(identity() << "Dimensions - In " << m_width << "x" << m_height << " - Full " << clip.m_width
                           << "x" << clip.m_height << " - Scale "
                           << (m_isOver ? "OVER" : scaleName(m_resolutionScale)) << " - Downscale "
                           << m_downscale);
    return {};
}

void vdBRAW_Request::takeResolution(const brResolution& resolution) {
    if (resolution.width == m_width && resolution.height == m_height)
        return;
    if (m_width == 0 || m_height == 0) {
        m_renderRect = {0, 0, toPixel(resolution.width), toPixel(resolution.height)};
    } else {
        m_renderRect = {scaledDown(m_renderRect.left, resolution.width, m_width),
                        scaledDown(m_renderRect.top, resolution.height, m_height),
                        scaledUp(m_renderRect.right, resolution.width, m_width),
                        scaledUp(m_renderRect.bottom, resolution.height, m_height)};
    }
    m_width = resolution.width;
    m_height = resolution.height;
}

vdStatus vdBRAW_Request::setup(uint64_t clipId, uint64_t frameCount, void* finalBuffer, int32_t rowBytes,
                               brPixelFormat pixelFormat, std::unique_ptr<brBufferManager> bufferManager) {
    m_frameIndex = 0;
    m_frameCount = frameCount;
    m_clipId = clipId;
    m_bufferManager = std::move(bufferManager);
    m_bufferManager->m_finalImageBuffer = finalBuffer;
    m_bufferManager->m_identity = identity();
    m_rowBytes = rowBytes;
    m_pixelFormat = pixelFormat;
    m_isEnabled = m_frameCount > 0;
    if (const vdStatus status = deriveFormats(); status.failed) {
        VD_LOG_ERROR(identity() << status.text());
        return status;
    }
    VD_LOG_INFO(identity() << "Request Setup - Frame " << m_frameIndex << " / " << m_frameCount
                           << " - Format " << pixelFormatName(m_pixelFormat)
                           << " - GPU : " << m_bufferManager->m_isGPU << " - Enable : " << m_isEnabled);
    if (canDeliverDirectly(finalBuffer))
        m_bufferManager->setAllocatedProcessedBuffer(finalBuffer,
                                                     m_height * static_cast<uint32_t>(m_rowBytes));
    return {};
}

void vdBRAW_Request::cloneProcessingAttributes(const vdBRAW_Clip& clip) {
    Microsoft::WRL::ComPtr<IBlackmagicRawClip> bmClip; // another thread may close the clip meanwhile
    {
        vdLock lock(clip.m_bmClipMutex, "m_bmClipMutex");
        bmClip = clip.m_bmClip;
    }
    HRESULT hr = E_UNEXPECTED;
    if (bmClip)
        hr = bmClip->CloneClipProcessingAttributes(m_clipProcessingAttributes.ReleaseAndGetAddressOf());
    if (FAILED(hr) || !m_clipProcessingAttributes) {
        m_clipProcessingAttributes.Reset();
        failUnlocked(brErrorProcessingAttributes, hr, "Impossible to Clone Processing Attributes - ");
        return;
    }
    vdStatus status;
    if (m_hasCustomSettings)
        status = applyClipSettings(m_clipProcessingAttributes.Get(), m_clipSettings);
    if (!status.failed)
        status = m_bufferManager->fillLut3DBuffersFromClipProcessing(m_clipProcessingAttributes.Get());
    // Without settings of its own the request is processed as the clip says.
    if (status.failed || !m_hasCustomSettings)
        m_clipProcessingAttributes.Reset();
    if (status.failed)
        failUnlocked(brErrorProcessingAttributes, S_OK, status.text());
}
