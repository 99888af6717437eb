// Delivery: which conversion brings the processed image into the final one, and the conversions.
#include "Request.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "CudaRuntime.h"
#include "Failure.h"
#include "PixelConversions.h"
#include "Utils/vdClock.h"
#include "Utils/vdLogging.h"

/// The log knows delivery as a part of the request.
#define DELIVERY_LOG(level, functionName, message)                                                           \
    VD_LOG_FROM(vdLogLevel::level, "Request.cpp", functionName, message)

vdStatus vdBRAW_Request::LaunchHeavyProcessing() {
    return HeavyProcessing();
}

bool vdBRAW_Request::CopyMemoryCPUorGPU(void* destination, const void* source, size_t size, bool measure,
                                        vdStatus& status) const {
    const bool timed = measure && vdLogs(vdLogLevel::info);
    const int64_t start = timed ? monotonicNanoseconds() : 0;
    if (!m_bufferManager->m_isGPU) {
        std::memcpy(destination, source, size);
    } else if (m_bufferManager->m_resourceType != blackmagicRawResourceTypeBufferCUDA) {
        DELIVERY_LOG(error, __func__, identity() << "GPU Decoding enabled but not working");
        return false;
    } else if (const int error = cudaCopy(destination, source, size, cudaCopyKind::deviceToHost);
               error == cudaRuntimeNotLoaded) {
        DELIVERY_LOG(error, __func__, identity() << "CUDA not loaded!");
        return false;
    } else if (error != 0) {
        status = vdFailure("CudaMemcpy function returned CUDA error " + std::to_string(error));
        return false;
    }
    if (timed) {
        constexpr double bitRateFactor = 0.9313225746154785; // nanoseconds and bits to seconds and 2^30 bits
        const int64_t elapsed = std::max<int64_t>(monotonicNanoseconds() - start, 1);
        const double rate = static_cast<double>(size) * 8 * bitRateFactor / static_cast<double>(elapsed);
        DELIVERY_LOG(info, __func__,
                     identity() << m_bufferManager->m_isGPU << " memcpy = " << elapsed / 1000 << " us \t"
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
    vdStatus status;        ///< what the request is to end with

    explicit Delivery(vdBRAW_Request& owner);
    std::byte* row(uint32_t index) const { return destination + ptrdiff_t{request.m_rowBytes} * index; }
    /// The same rows counted from the lowest address.
    std::byte* rowUpwards(uint32_t index) const {
        return request.m_rowBytes < 0 ? row(request.m_height - 1 - index) : row(index);
    }
    bool copy(std::byte* to, const std::byte* from, size_t size, bool measure) {
        return size == 0 || request.CopyMemoryCPUorGPU(to, from, size, measure, status);
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
        DELIVERY_LOG(error, "HeavyProcessing",
                     owner.identity() << "The Processed Buffer is smaller than the processed image !");
    sourceRows = static_cast<uint32_t>(std::min<size_t>(heldRows, owner.m_processedHeight));
}

/// For conversions that read single pixels. False when the image could not be fetched: that is in the status,
/// or has been logged.
bool Delivery::fetchToHost() {
    if (!request.m_bufferManager->m_isGPU)
        return true;
    const size_t size = sourceRows * sourceRowBytes;
    m_hostCopy.reset(new (std::nothrow) std::byte[size]);
    if (!m_hostCopy) {
        status = failure("Error while converting processed buffer to CPU : ", E_OUTOFMEMORY);
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
        DELIVERY_LOG(error, "HeavyProcessing",
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
        DELIVERY_LOG(error, "HeavyProcessing_Downscale",
                     request.identity()
                         << "Render Target bad values to divise ! " << rect.bottom << ", " << rect.right);
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
    DELIVERY_LOG(error, "HeavyProcessing",
                 delivery.request.identity()
                     << "This m_pxlConvAlgo should be only GPU : " << delivery.request.m_pxlConvAlgo);
}

constexpr BlackmagicRawResourceFormat noResourceFormat = 0;

/// A way from a processed image to a final one. The number is what requests carry and the log shows.
struct Conversion {
    uint32_t number;
    brPixelFormat format;
    enum Size { plain, downscaled } size;
    BlackmagicRawResourceFormat resourceFormat;
    enum Layout { converted, direct } layout; ///< direct: as the decoder itself writes it
    void (*deliver)(Delivery&);               ///< null: there is none so far
};

constexpr auto plain = Conversion::plain, downscaled = Conversion::downscaled;
constexpr auto converted = Conversion::converted, direct = Conversion::direct;
constexpr Conversion conversions[] = {
    {1, brPixelFormat::BGRA_8_LOW, plain, blackmagicRawResourceFormatBGRAU8, direct, copyRows},
    {2, brPixelFormat::ARGB_8_LOW, plain, blackmagicRawResourceFormatRGBAU8, converted,
     copyRowsFlippedAsArgb8},
    {3, brPixelFormat::ARGB_16_LOW, plain, noResourceFormat, converted, nullptr},
    {4, brPixelFormat::BGRA_16_LOW, plain, blackmagicRawResourceFormatBGRAU16, converted, convertRowsBgra16},
    {7, brPixelFormat::BGRA_32_LOW, plain, blackmagicRawResourceFormatBGRAF32, direct, copyRegion},
    {8, brPixelFormat::ARGB_32_LOW, plain, noResourceFormat, converted, nullptr},
    {9, brPixelFormat::ARGB_8_UP, downscaled, blackmagicRawResourceFormatRGBAU8, converted,
     HeavyProcessing_Downscale<4, sampleRgba8ToArgb8>},
    {10, brPixelFormat::ARGB_16_UP, downscaled, blackmagicRawResourceFormatRGBAU16, converted,
     HeavyProcessing_Downscale<8, sampleRgba16ToArgb16>},
    {11, brPixelFormat::ARGB_32_UP, downscaled, blackmagicRawResourceFormatRGBF32, converted,
     HeavyProcessing_Downscale<16, sampleRgbFloatToArgb>},
    {12, brPixelFormat::ARGB_8_UP, plain, blackmagicRawResourceFormatRGBAU8, converted, copyRegionAsArgb8},
    {13, brPixelFormat::ARGB_16_UP, plain, blackmagicRawResourceFormatRGBAU16, converted,
     convertRegionArgb16},
    {14, brPixelFormat::ARGB_32_UP, plain, blackmagicRawResourceFormatRGBF32, converted,
     convertRegionArgbFloat},
    {15, brPixelFormat::BGRA_8_LOW, downscaled, blackmagicRawResourceFormatBGRAU8, converted,
     HeavyProcessing_Downscale<4, sample4Bytes>},
    {16, brPixelFormat::BGRA_16_LOW, downscaled, blackmagicRawResourceFormatBGRAU16, converted,
     HeavyProcessing_Downscale<8, sampleBgra16>},
    {17, brPixelFormat::BGRA_32_LOW, downscaled, blackmagicRawResourceFormatBGRAF32, converted,
     HeavyProcessing_Downscale<16, sample16Bytes>},
    {18, brPixelFormat::BGRA_16_UP, plain, blackmagicRawResourceFormatBGRAF32, converted,
     refuseGpuConversion},
    {19, brPixelFormat::BGRA_32_UP, plain, blackmagicRawResourceFormatBGRAF32, direct, refuseGpuConversion},
    {20, brPixelFormat::BGRA_32_UP, downscaled, blackmagicRawResourceFormatBGRAF32, converted,
     refuseGpuConversion},
    {21, brPixelFormat::RGBA_8_UP, plain, blackmagicRawResourceFormatRGBAU8, direct, copyRows},
    {22, brPixelFormat::RGBA_8_UP, downscaled, blackmagicRawResourceFormatRGBAU8, converted,
     HeavyProcessing_Downscale<4, sample4Bytes>},
    {23, brPixelFormat::BGRA_8_UP, plain, blackmagicRawResourceFormatBGRAU8, direct, nullptr},
};

const Conversion* findConversion(uint32_t number) {
    const auto* const row = std::find_if(std::begin(conversions), std::end(conversions),
                                         [&](const Conversion& r) { return r.number == number; });
    return row == std::end(conversions) ? nullptr : row;
}

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

} // namespace

vdStatus vdBRAW_Request::deriveFormats() {
    const auto* const row =
        std::find_if(std::begin(conversions), std::end(conversions), [&](const Conversion& r) {
            return r.format == m_pixelFormat && r.size == (m_downscale ? downscaled : plain);
        });
    if (row == std::end(conversions))
        return vdFailure((m_downscale ? "No implemented yet : Downscale and targetPixel "
                                      : "No implemented yet : targetPixel ") +
                         pixelFormatName(m_pixelFormat));
    m_pxlConvAlgo = row->number;
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
    const Conversion* const conversion = findConversion(m_pxlConvAlgo);
    const uint64_t rowBytes = uint64_t{pixelFormatBytes(m_pixelFormat)} * m_width;
    const brRect whole = {0, 0, static_cast<int32_t>(m_width), static_cast<int32_t>(m_height)};
    return conversion && conversion->layout == direct && !m_downscale && !m_isOver && finalBuffer &&
           m_rowBytes > 0 && rowBytes == static_cast<uint64_t>(m_rowBytes) &&
           rowBytes * m_height <= UINT32_MAX && !m_bufferManager->m_isGPU && m_renderRect == whole;
}

vdStatus vdBRAW_Request::HeavyProcessing() {
    if (!m_isEnabled)
        return {};
    if (!m_bufferManager->m_ownsProcessedBuffer) {
        DELIVERY_LOG(info, __func__, identity() << "Final Buffer has been filled by BMD directly !");
        m_bufferManager->m_finalImageBuffer = m_bufferManager->m_processedBuffer.resource;
        return {};
    }
    if (!m_bufferManager->m_finalImageBuffer) {
        DELIVERY_LOG(error, __func__, identity() << "m_finalImageBuffer is nullptr");
        return {};
    }
    if (!m_bufferManager->m_processedBuffer.resource)
        return vdFailure("m_processedBuffer is nullptr");
    vdStatus status;
    vdStopwatch timer;
    timer.start();
    DELIVERY_LOG(info, __func__,
                 identity() << "Final Buffer to Copy ! PXAL: " << m_pxlConvAlgo << " RB:" << m_rowBytes
                            << " W:" << m_width << " PX: " << pixelFormatName(m_pixelFormat));
    const Conversion* const conversion = findConversion(m_pxlConvAlgo);
    if (!conversion || !conversion->deliver) {
        DELIVERY_LOG(error, __func__, identity() << "Pixel Format / Conversion not implemented !");
    } else {
        Delivery delivery(*this);
        conversion->deliver(delivery);
        status = delivery.status;
    }
    DELIVERY_LOG(info, __func__,
                 identity() << "ProcessImage"
                            << " dt " << static_cast<double>(timer.lap()) / 1e6);
    return status;
}
