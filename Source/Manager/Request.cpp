#include "Request.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include "AttributesSetter.h"
#include "CudaRuntime.h"
#include "PixelConversions.h"
#include "Utils/vdClock.h"
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

constexpr uint32_t noConversion = 0;
constexpr BlackmagicRawResourceFormat noResourceFormat = 0;

/// Which conversion brings a resource format into a pixel format, plainly and with a downscale.
struct ConversionRow {
    brPixelFormat format;
    BlackmagicRawResourceFormat resourceFormat;
    uint32_t plain;
    uint32_t downscaled;
};

constexpr ConversionRow conversions[] = {
    {brPixelFormat::ARGB_8_LOW, blackmagicRawResourceFormatRGBAU8, 2, noConversion},
    {brPixelFormat::ARGB_16_LOW, noResourceFormat, 3, noConversion},
    {brPixelFormat::ARGB_32_LOW, noResourceFormat, 8, noConversion},
    {brPixelFormat::BGRA_8_LOW, blackmagicRawResourceFormatBGRAU8, 1, 15},
    {brPixelFormat::BGRA_16_LOW, blackmagicRawResourceFormatBGRAU16, 4, 16},
    {brPixelFormat::BGRA_32_LOW, blackmagicRawResourceFormatBGRAF32, 7, 17},
    {brPixelFormat::ARGB_8_UP, blackmagicRawResourceFormatRGBAU8, 12, 9},
    {brPixelFormat::ARGB_16_UP, blackmagicRawResourceFormatRGBAU16, 13, 10},
    {brPixelFormat::ARGB_32_UP, blackmagicRawResourceFormatRGBF32, 14, 11},
    {brPixelFormat::BGRA_16_UP, blackmagicRawResourceFormatBGRAF32, 18, noConversion},
    {brPixelFormat::BGRA_32_UP, blackmagicRawResourceFormatBGRAF32, 19, 20},
    {brPixelFormat::RGBA_8_UP, blackmagicRawResourceFormatRGBAU8, 21, 22},
    {brPixelFormat::BGRA_8_UP, blackmagicRawResourceFormatBGRAU8, 23, noConversion},
};

struct ResourceFormatRow {
    BlackmagicRawResourceFormat format;
    uint8_t bytesPerPixel;
};

constexpr ResourceFormatRow resourceFormats[] = {
    {blackmagicRawResourceFormatRGBAU8, 4},   {blackmagicRawResourceFormatBGRAU8, 4},
    {blackmagicRawResourceFormatRGBAU16, 8},  {blackmagicRawResourceFormatBGRAU16, 8},
    {blackmagicRawResourceFormatRGBU16, 6},   {blackmagicRawResourceFormatRGBU16Planar, 6},
    {blackmagicRawResourceFormatRGBF32, 12},  {blackmagicRawResourceFormatRGBF32Planar, 12},
    {blackmagicRawResourceFormatBGRAF32, 16},
};

/// Conversions whose result is laid out as the decoder itself writes it.
constexpr uint32_t directConversions = 1u << 1 | 1u << 7 | 1u << 19 | 1u << 21 | 1u << 23;

float scaleOf(const brScaleRequest& request) {
    if (request.scale == 0 && request.asked != 0)
        return static_cast<float>(request.full) / static_cast<float>(request.asked);
    return request.scale;
}

float ratio(uint32_t full, uint32_t reduced) {
    return reduced == 0 ? 0 : static_cast<float>(full) / static_cast<float>(reduced);
}

int32_t toPixel(double position) {
    constexpr double lowest = std::numeric_limits<int32_t>::min();
    constexpr double highest = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(std::clamp(position, lowest, highest));
}

/// The smallest of the clip's resolutions that shrinks by no more than asked in either direction, or null.
const brResolution* smallestSufficient(const vdBRAW_Clip& clip, float sx, float sy) {
    for (auto entry = clip.m_resolutions.rbegin(); entry != clip.m_resolutions.rend(); ++entry)
        if (ratio(clip.m_width, entry->width) <= sx && ratio(clip.m_height, entry->height) <= sy)
            return &*entry;
    return nullptr;
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

vdBRAW_Request::~vdBRAW_Request() = default;

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

int vdBRAW_Request::onProcessComplete() {
    return 0;
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
        const double fx = static_cast<double>(resolution.width) / m_width;
        const double fy = static_cast<double>(resolution.height) / m_height;
        m_renderRect = {
            toPixel(std::floor(m_renderRect.left * fx)), toPixel(std::floor(m_renderRect.top * fy)),
            toPixel(std::ceil(m_renderRect.right * fx)), toPixel(std::ceil(m_renderRect.bottom * fy))};
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

vdStatus vdBRAW_Request::deriveFormats() {
    const auto* const row = std::find_if(std::begin(conversions), std::end(conversions),
                                         [&](const ConversionRow& r) { return r.format == m_pixelFormat; });
    const uint32_t conversion =
        row == std::end(conversions) ? noConversion : (m_downscale ? row->downscaled : row->plain);
    if (conversion == noConversion)
        return vdFailure((m_downscale ? "No implemented yet : Downscale and targetPixel "
                                      : "No implemented yet : targetPixel ") +
                         pixelFormatName(m_pixelFormat));
    m_pxlConvAlgo = conversion;
    m_resourceFormat = row->resourceFormat;
    const auto* const resource =
        std::find_if(std::begin(resourceFormats), std::end(resourceFormats),
                     [&](const ResourceFormatRow& r) { return r.format == m_resourceFormat; });
    if (resource == std::end(resourceFormats))
        return vdFailure("Unknown BM Pixel format");
    m_resourceBytesPerPixel = resource->bytesPerPixel;
    return {};
}

bool vdBRAW_Request::canDeliverDirectly(const void* finalBuffer) const {
    const uint64_t rowBytes = uint64_t{pixelFormatBytes(m_pixelFormat)} * m_width;
    const brRect whole = {0, 0, static_cast<int32_t>(m_width), static_cast<int32_t>(m_height)};
    return !m_downscale && !m_isOver && finalBuffer && m_rowBytes > 0 &&
           rowBytes == static_cast<uint64_t>(m_rowBytes) && rowBytes * m_height <= UINT32_MAX &&
           !m_bufferManager->m_isGPU && m_renderRect == whole && m_pxlConvAlgo < 24 &&
           (directConversions >> m_pxlConvAlgo & 1);
}

void vdBRAW_Request::cloneProcessingAttributes(const vdBRAW_Clip& clip) {
    HRESULT hr = E_UNEXPECTED;
    if (clip.m_bmClip)
        hr =
            clip.m_bmClip->CloneClipProcessingAttributes(m_clipProcessingAttributes.ReleaseAndGetAddressOf());
    if (FAILED(hr) || !m_clipProcessingAttributes) {
        m_clipProcessingAttributes.Reset();
        HandleError(brErrorProcessingAttributes, hr, "Impossible to Clone Processing Attributes - ", false);
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
        HandleError(brErrorProcessingAttributes, S_OK, status.text(), false);
}

// Delivery: from the processed image to the final one.

int vdBRAW_Request::LaunchHeavyProcessing() {
    return HeavyProcessing();
}

bool vdBRAW_Request::CopyMemoryCPUorGPU(void* destination, const void* source, size_t size, bool measure) {
    const bool timed = measure && vdLogs(vdLogLevel::info);
    const int64_t start = timed ? monotonicNanoseconds() : 0;
    if (!m_bufferManager->m_isGPU) {
        std::memcpy(destination, source, size);
    } else if (m_bufferManager->m_resourceType != blackmagicRawResourceTypeBufferCUDA) {
        VD_LOG_ERROR(identity() << "GPU Decoding enabled but not working");
        return false;
    } else if (const int error = cudaCopy(destination, source, size, cudaCopyKind::deviceToHost);
               error == cudaRuntimeNotLoaded) {
        VD_LOG_ERROR(identity() << "CUDA not loaded!");
        return false;
    } else if (error != 0) {
        HandleError(brErrorDelivery, S_OK, "CudaMemcpy function returned CUDA error " + std::to_string(error),
                    false);
        return false;
    }
    if (timed) {
        constexpr double bitRateFactor = 0.9313225746154785; // nanoseconds and bits to seconds and 2^30 bits
        const int64_t elapsed = std::max<int64_t>(monotonicNanoseconds() - start, 1);
        const double rate = static_cast<double>(size) * 8 * bitRateFactor / static_cast<double>(elapsed);
        VD_LOG_INFO(identity() << m_bufferManager->m_isGPU << " memcpy = " << elapsed / 1000 << " us \t"
                               << size << " bytes \t " << rate << " GBits/s");
    }
    return true;
}

namespace {

/// One request's delivery. The source is read, and the destination written, within what both really hold,
/// whatever the request's figures say.
struct Delivery {
    vdBRAW_Request& request;
    const std::byte* source; ///< device memory for a GPU's image
    size_t sourceRowBytes;
    uint32_t sourceRows = 0;
    std::byte* destination; ///< the row that is stored first in the image's order
    size_t rowCapacity;     ///< bytes of a destination row

    explicit Delivery(vdBRAW_Request& owner);
    std::byte* row(uint32_t index) const { return destination + ptrdiff_t{request.m_rowBytes} * index; }
    /// The same rows counted from the lowest address.
    std::byte* rowUpwards(uint32_t index) const {
        return request.m_rowBytes < 0 ? row(request.m_height - 1 - index) : row(index);
    }
    bool copy(std::byte* to, const std::byte* from, size_t size, bool measure) const {
        return size == 0 || request.CopyMemoryCPUorGPU(to, from, size, measure);
    }
    bool fetchToHost();

private:
    std::unique_ptr<std::byte[]> m_hostCopy;
};

Delivery::Delivery(vdBRAW_Request& owner)
    : request(owner),
      source(static_cast<const std::byte*>(owner.m_bufferManager->m_processedBuffer.resource)),
      sourceRowBytes(size_t{owner.m_resourceBytesPerPixel} * owner.m_processedWidth),
      destination(static_cast<std::byte*>(owner.m_bufferManager->m_finalImageBuffer)),
      rowCapacity(static_cast<size_t>(std::abs(int64_t{owner.m_rowBytes}))) {
    if (sourceRowBytes == 0)
        return;
    const size_t heldRows = owner.m_bufferManager->m_processedBuffer.capacity / sourceRowBytes;
    if (heldRows < owner.m_processedHeight)
        VD_LOG_AS(vdLogLevel::error, "HeavyProcessing",
                  owner.identity() << "The Processed Buffer is smaller than the processed image !");
    sourceRows = static_cast<uint32_t>(std::min<size_t>(heldRows, owner.m_processedHeight));
}

/// For conversions that read single pixels. False when the image could not be fetched, which has then been
/// reported.
bool Delivery::fetchToHost() {
    if (!request.m_bufferManager->m_isGPU)
        return true;
    const size_t size = sourceRows * sourceRowBytes;
    m_hostCopy.reset(new (std::nothrow) std::byte[size]);
    if (!m_hostCopy) {
        request.HandleError(brErrorDelivery, E_OUTOFMEMORY,
                            "Error while converting processed buffer to CPU : ", false);
        return false;
    }
    if (!copy(m_hostCopy.get(), source, size, true))
        return false;
    source = m_hostCopy.get();
    return true;
}

/// The part of the processed image that goes into the final one, cut to what both hold.
struct Region {
    size_t offset = 0; ///< of the first pixel in the source, bytes
    uint32_t columns = 0;
    uint32_t rows = 0;
    bool wholeRows = false; ///< one block on both sides
};

Region renderRegion(const Delivery& delivery, size_t finalPixelBytes) {
    const vdBRAW_Request& request = delivery.request;
    const brRect& rect = request.m_renderRect;
    if (rect.left < 0 || rect.top < 0 || static_cast<uint32_t>(rect.left) >= request.m_processedWidth ||
        static_cast<uint32_t>(rect.top) >= delivery.sourceRows) {
        VD_LOG_AS(vdLogLevel::error, "HeavyProcessing",
                  request.identity() << "The render rectangle lies outside of the processed image !");
        return {};
    }
    const auto left = static_cast<uint32_t>(rect.left);
    const auto top = static_cast<uint32_t>(rect.top);
    Region region;
    region.offset = top * delivery.sourceRowBytes + size_t{left} * request.m_resourceBytesPerPixel;
    region.columns = static_cast<uint32_t>(std::min<size_t>(
        {request.m_width, request.m_processedWidth - left, delivery.rowCapacity / finalPixelBytes}));
    region.rows = std::min(request.m_height, delivery.sourceRows - top);
    region.wholeRows = delivery.sourceRowBytes == delivery.rowCapacity && left == 0 &&
                       static_cast<uint32_t>(rect.right) == request.m_processedWidth;
    return region;
}

void copyRows(Delivery& delivery) {
    const uint32_t rows = std::min(delivery.sourceRows, delivery.request.m_height);
    if (static_cast<int64_t>(delivery.sourceRowBytes) == delivery.request.m_rowBytes) {
        delivery.copy(delivery.destination, delivery.source, rows * delivery.sourceRowBytes, true);
        return;
    }
    const size_t size = std::min(delivery.sourceRowBytes, delivery.rowCapacity);
    for (uint32_t y = 0; y < rows; ++y)
        if (!delivery.copy(delivery.row(y), delivery.source + y * delivery.sourceRowBytes, size, y == 0))
            return;
}

constexpr std::byte opaqueAlpha8{255};

/// RGBA becomes ARGB by a shift of one byte: every pixel's alpha slips into its successor's place.
void copyRowsFlippedAsArgb8(Delivery& delivery) {
    const uint32_t height = delivery.request.m_processedHeight;
    const uint32_t rows = std::min(height, delivery.request.m_height);
    const size_t size = std::min(delivery.sourceRowBytes, delivery.rowCapacity);
    if (size == 0)
        return;
    // The bottom rows come first, so those that a short source lacks are these.
    for (uint32_t y = height - std::min(height, delivery.sourceRows); y < rows; ++y) {
        std::byte* to = delivery.row(y);
        if (!delivery.copy(to + 1, delivery.source + size_t{height - 1 - y} * delivery.sourceRowBytes,
                           size - 1, y == 0))
            return;
        *to = opaqueAlpha8;
    }
}

void convertRowsBgra16(Delivery& delivery) {
    if (!delivery.fetchToHost())
        return;
    const uint32_t rows = std::min(delivery.sourceRows, delivery.request.m_height);
    const size_t columns = std::min<size_t>(delivery.request.m_processedWidth, delivery.rowCapacity / 8);
    for (uint32_t y = 0; y < rows; ++y)
        convertBgra16(delivery.row(y), delivery.source + y * delivery.sourceRowBytes, columns);
}

void copyRegion(Delivery& delivery) {
    constexpr size_t pixelBytes = 16;
    const Region region = renderRegion(delivery, pixelBytes);
    const std::byte* from = delivery.source + region.offset;
    if (region.wholeRows) {
        delivery.copy(delivery.rowUpwards(0), from, region.rows * delivery.sourceRowBytes, true);
        return;
    }
    for (uint32_t y = 0; y < region.rows; ++y, from += delivery.sourceRowBytes)
        if (!delivery.copy(delivery.rowUpwards(y), from, region.columns * pixelBytes, y == 0))
            return;
}

void copyRegionAsArgb8(Delivery& delivery) {
    constexpr size_t pixelBytes = 4;
    Region region = renderRegion(delivery, pixelBytes);
    size_t size = region.columns * pixelBytes;
    if (region.wholeRows) {
        size = region.rows * delivery.sourceRowBytes;
        region.rows = std::min(region.rows, 1u);
    }
    const std::byte* from = delivery.source + region.offset;
    for (uint32_t y = 0; y < region.rows && size != 0; ++y, from += delivery.sourceRowBytes) {
        std::byte* to = delivery.rowUpwards(y);
        *to = opaqueAlpha8;
        if (!delivery.copy(to + 1, from, size - 1, y == 0))
            return;
    }
}

void convertRegionArgb16(Delivery& delivery) {
    constexpr size_t pixelBytes = 8;
    constexpr uint16_t opaqueAlpha = 32768;
    const Region region = renderRegion(delivery, pixelBytes);
    if (region.columns == 0 || !delivery.fetchToHost())
        return;
    const std::byte* from = delivery.source + region.offset;
    for (uint32_t y = 0; y < region.rows; ++y, from += delivery.sourceRowBytes) {
        std::byte* to = delivery.rowUpwards(y);
        std::memcpy(to, &opaqueAlpha, sizeof opaqueAlpha);
        convertChannels16(to + sizeof opaqueAlpha, from, size_t{region.columns} * 4 - 1);
    }
}

void convertRegionArgbFloat(Delivery& delivery) {
    constexpr size_t pixelBytes = 16;
    const Region region = renderRegion(delivery, pixelBytes);
    if (region.columns == 0 || !delivery.fetchToHost())
        return;
    const std::byte* from = delivery.source + region.offset;
    for (uint32_t y = 0; y < region.rows; ++y, from += delivery.sourceRowBytes)
        convertRgbFloatToArgb(delivery.rowUpwards(y), from, region.columns);
}

/// The nearest pixel's index for a position, which may lie anywhere.
uint32_t sampleIndex(float position, uint32_t count) {
    if (!(position > 0))
        return 0;
    return position < static_cast<float>(count) ? std::min(static_cast<uint32_t>(position), count - 1)
                                                : count - 1;
}

brColumns sampledColumns(const vdBRAW_Request& request, size_t count) {
    const uint32_t pixelBytes = request.m_resourceBytesPerPixel;
    brColumns columns;
    columns.offsets.resize(count);
    float x = static_cast<float>(request.m_renderRect.left) * request.m_downscaleX;
    for (uint32_t& offset : columns.offsets) {
        offset = sampleIndex(x, request.m_processedWidth) * pixelBytes;
        x += request.m_downscaleX;
    }
    columns.everySecond =
        std::adjacent_find(columns.offsets.begin(), columns.offsets.end(), [&](uint32_t a, uint32_t b) {
            return b != a + 2 * pixelBytes;
        }) == columns.offsets.end();
    return columns;
}

/// Takes the nearest pixel for each final one. The steps add up in single precision, as hosts that place the
/// picture do it.
template <size_t finalPixelBytes, brSampleRow sampleRow>
void HeavyProcessing_Downscale(Delivery& delivery) {
    const vdBRAW_Request& request = delivery.request;
    const brRect& rect = request.m_renderRect;
    if (rect.right == 0 && rect.bottom == 0) {
        VD_LOG_AS(vdLogLevel::error, "HeavyProcessing_Downscale",
                  request.identity() << "Render Target bad values to divise ! " << rect.bottom << ", "
                                     << rect.right);
        return;
    }
    if (delivery.sourceRows == 0 || !delivery.fetchToHost())
        return;
    const brColumns columns =
        sampledColumns(request, std::min<size_t>(request.m_width, delivery.rowCapacity / finalPixelBytes));
    if (columns.offsets.empty())
        return;
    float y = static_cast<float>(rect.top) * request.m_downscaleY;
    for (uint32_t row = 0; row < request.m_height; ++row) {
        sampleRow(delivery.rowUpwards(row),
                  delivery.source + sampleIndex(y, delivery.sourceRows) * delivery.sourceRowBytes, columns);
        y += request.m_downscaleY;
    }
}

void refuseGpuConversion(Delivery& delivery) {
    VD_LOG_AS(vdLogLevel::error, "HeavyProcessing",
              delivery.request.identity()
                  << "This m_pxlConvAlgo should be only GPU : " << delivery.request.m_pxlConvAlgo);
}

struct DeliveryRow {
    uint32_t conversion;
    void (*deliver)(Delivery&);
};

constexpr DeliveryRow deliveries[] = {
    {1, copyRows},
    {2, copyRowsFlippedAsArgb8},
    {4, convertRowsBgra16},
    {7, copyRegion},
    {9, HeavyProcessing_Downscale<4, sampleRgba8ToArgb8>},
    {10, HeavyProcessing_Downscale<8, sampleRgba16ToArgb16>},
    {11, HeavyProcessing_Downscale<16, sampleRgbFloatToArgb>},
    {12, copyRegionAsArgb8},
    {13, convertRegionArgb16},
    {14, convertRegionArgbFloat},
    {15, HeavyProcessing_Downscale<4, sample4Bytes>},
    {16, HeavyProcessing_Downscale<8, sampleBgra16>},
    {17, HeavyProcessing_Downscale<16, sample16Bytes>},
    {18, refuseGpuConversion},
    {19, refuseGpuConversion},
    {20, refuseGpuConversion},
    {21, copyRows},
    {22, HeavyProcessing_Downscale<4, sample4Bytes>},
};

} // namespace

int vdBRAW_Request::HeavyProcessing() {
    if (!m_isEnabled)
        return 0;
    if (!m_bufferManager->m_ownsProcessedBuffer) {
        VD_LOG_INFO(identity() << "Final Buffer has been filled by BMD directly !");
        m_bufferManager->m_finalImageBuffer = m_bufferManager->m_processedBuffer.resource;
        return 0;
    }
    if (!m_bufferManager->m_finalImageBuffer) {
        VD_LOG_ERROR(identity() << "m_finalImageBuffer is nullptr");
        return 0;
    }
    if (!m_bufferManager->m_processedBuffer.resource)
        return HandleError(brErrorDelivery, S_OK, "m_processedBuffer is nullptr", false);
    vdStopwatch timer;
    timer.start();
    VD_LOG_INFO(identity() << "Final Buffer to Copy ! PXAL: " << m_pxlConvAlgo << " RB:" << m_rowBytes
                           << " W:" << m_width << " PX: " << pixelFormatName(m_pixelFormat));
    const auto* const row = std::find_if(std::begin(deliveries), std::end(deliveries),
                                         [&](const DeliveryRow& r) { return r.conversion == m_pxlConvAlgo; });
    if (row == std::end(deliveries)) {
        VD_LOG_ERROR(identity() << "Pixel Format / Conversion not implemented !");
    } else {
        Delivery delivery(*this);
        row->deliver(delivery);
    }
    VD_LOG_INFO(identity() << "ProcessImage"
                           << " dt " << static_cast<double>(timer.lap()) / 1e6);
    return 0;
}
