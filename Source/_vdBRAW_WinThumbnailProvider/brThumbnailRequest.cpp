#include "brThumbnailRequest.h"

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "Manager.h"
#include "Utils/vdLogging.h"
#include "brFramePlacement.h"

namespace {
constexpr uint32_t bytesPerPixel = 4;

/// A DIB section and its pixels, or null. Row and image sizes are 32-bit numbers throughout, so a bitmap that
/// they cannot tell is refused before GDI is asked for it.
HBITMAP createDIB(uint32_t width, uint32_t height, void*& pixels) {
    constexpr uint64_t largest = INT32_MAX / bytesPerPixel;
    if (width == 0 || height == 0 || uint64_t{width} * height > largest)
        return nullptr;
    BITMAPINFO info = {};
    info.bmiHeader.biSize = sizeof info.bmiHeader;
    info.bmiHeader.biWidth = static_cast<LONG>(width);
    info.bmiHeader.biHeight = static_cast<LONG>(height); // positive: bottom row first
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 8 * bytesPerPixel;
    info.bmiHeader.biCompression = BI_RGB;
    return CreateDIBSection(nullptr, &info, DIB_RGB_COLORS, &pixels, nullptr, 0);
}
} // namespace

vdBRAW_Request_Thumbnail::~vdBRAW_Request_Thumbnail() {
    for (const HBITMAP bitmap : {m_hBitmap, m_unturnedBitmap})
        if (bitmap != nullptr)
            DeleteObject(bitmap);
}

vdStatus vdBRAW_Request_Thumbnail::initThumbnail(const vdBRAW_Clip& clip, const brDimensions& dimensions) {
    m_queueId = brNoQueueId;
    const brRect rect{0, 0, static_cast<int32_t>(dimensions.width), static_cast<int32_t>(dimensions.height)};
    const vdStatus scaled =
        setScaleAndDimensions(clip, {0, static_cast<int32_t>(clip.m_width), dimensions.width},
                              {0, static_cast<int32_t>(clip.m_height), dimensions.height}, rect);
    if (scaled.failed)
        return scaled;

    auto bufferManager = g_manager->createBufferManager();
    void* const pixels = createBitmap();
    const vdStatus set =
        setup(clip.m_id, clip.m_frameCount, pixels, static_cast<int32_t>(m_width * bytesPerPixel),
              brPixelFormat::BGRA_8_LOW, std::move(bufferManager));
    if (set.failed)
        return set;
    cloneProcessingAttributes(clip);
    return {};
}

void* vdBRAW_Request_Thumbnail::createBitmap() {
    void* pixels = nullptr;
    m_hBitmap = createDIB(m_width, m_height, pixels);
    if (m_hBitmap == nullptr) {
        failUnlocked(brErrorBitmap, E_OUTOFMEMORY, "Error Allocating HBitmap (CreateDIBSection) !");
        return nullptr;
    }
    return pixels;
}

vdStatus vdBRAW_Request_Thumbnail::onProcessComplete() {
    return LaunchHeavyProcessing();
}

vdStatus vdBRAW_Request_Thumbnail::LaunchHeavyProcessing() {
    // A clip without frames is answered with the bitmap as it was made: transparent.
    if (!m_isEnabled || m_hBitmap == nullptr || m_bufferManager->m_finalImageBuffer == nullptr)
        return {};

    if (m_isOver)
        return placeInBitmap();
    if (m_processedWidth == m_height && m_processedHeight == m_width && m_width != m_height)
        if (const vdStatus turned = turnBitmap(); turned.failed)
            return turned;
    // Rows of another length than the bitmap's would shear the picture.
    if (m_processedWidth != m_width || m_processedHeight != m_height)
        return vdFailure("The processed image has not the size of the HBitmap");
    if (m_bufferManager->m_isGPU) {
        void* host = m_bufferManager->m_finalImageBuffer;
        return fetchImage(host, uint64_t{m_height} * m_width * bytesPerPixel);
    }
    return m_bufferManager->m_ownsProcessedBuffer ? copyFromProcessedBuffer() : vdStatus();
}

/// The image of a clip that was turned after its sizes were told: its sides are the bitmap's, swapped. A
/// bitmap of the image's sides takes the place, of just as many bytes.
vdStatus vdBRAW_Request_Thumbnail::turnBitmap() {
    void* pixels = nullptr;
    const HBITMAP turned = createDIB(m_processedWidth, m_processedHeight, pixels);
    if (turned == nullptr)
        return vdFailure("Error Allocating HBitmap (CreateDIBSection) !");
    m_unturnedBitmap = std::exchange(m_hBitmap, turned);
    std::swap(m_width, m_height);
    m_rowBytes = static_cast<int32_t>(m_width * bytesPerPixel);
    const void* const unturned = std::exchange(m_bufferManager->m_finalImageBuffer, pixels);
    if (!m_bufferManager->m_isGPU && !m_bufferManager->m_ownsProcessedBuffer) // written there by the decoder
        std::memcpy(pixels, unturned, size_t{m_width} * m_height * bytesPerPixel);
    return {};
}

/// The processed image on the host, as getProcessedBufferOnHost gives it.
vdStatus vdBRAW_Request_Thumbnail::fetchImage(void*& host, uint64_t hostBytes) const {
    const vdStatus fetched = m_bufferManager->getProcessedBufferOnHost(host, hostBytes);
    if (fetched.failed)
        return vdFailure("Error while converting processed buffer to CPU : " + std::string(fetched.text()));
    return fetched;
}

vdStatus vdBRAW_Request_Thumbnail::copyFromProcessedBuffer() {
    constexpr const char* function = "LaunchHeavyProcessing";
    const brBuffer& processed = m_bufferManager->m_processedBuffer;
    uint32_t bytes = pixelFormatBytes(m_pixelFormat) * (m_height * m_width);
    if (processed.capacity == bytes)
        VD_LOG_AS(vdLogLevel::error, function,
                  identity() << "Final Processed Buffer should have been directly processed by Lib !");
    if (processed.capacity < bytes) {
        VD_LOG_AS(
            vdLogLevel::error, function,
            identity() << "The final Processed Buffer is smaller than HBitmap - it should not happen !");
        bytes = processed.capacity;
    }
    if (processed.resource == nullptr)
        return vdFailure("m_processedBuffer is nullptr");
    VD_LOG_AS(vdLogLevel::info, function, identity() << "Copying Processed Buffer to Final Buffer");
    std::memcpy(m_bufferManager->m_finalImageBuffer, processed.resource, bytes);
    return {};
}

/// The bitmap is larger than the clip: the whole frame goes to its middle, as large as it fits.
vdStatus vdBRAW_Request_Thumbnail::placeInBitmap() {
    const uint64_t frameBytes = uint64_t{m_processedWidth} * m_processedHeight * bytesPerPixel;
    if (frameBytes == 0 || frameBytes > m_bufferManager->m_processedBuffer.capacity)
        return vdFailure("The processed buffer does not hold the processed image");
    std::unique_ptr<uint8_t[]> copy;
    void* frame = nullptr;
    if (m_bufferManager->m_isGPU) {
        copy = std::make_unique_for_overwrite<uint8_t[]>(frameBytes);
        frame = copy.get();
    }
    if (const vdStatus fetched = fetchImage(frame, frameBytes); fetched.failed)
        return fetched;
    if (frame == nullptr)
        return vdFailure("m_processedBuffer is nullptr");
    placeFrame(static_cast<const uint8_t*>(frame), m_processedWidth, m_processedHeight,
               static_cast<uint8_t*>(m_bufferManager->m_finalImageBuffer), m_width, m_height);
    return {};
}
