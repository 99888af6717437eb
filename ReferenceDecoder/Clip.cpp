#include "Clip.h"

#include <cstdlib>
#include <limits>
#include <span>

#include "Frame.h"
#include "Resources.h"

namespace reference {

namespace {

class ReadJob : public Job {
public:
    ReadJob(std::shared_ptr<JobQueue> queue, std::shared_ptr<PnmStream> stream, uint64_t frame,
            void* bitStream, Turning turning)
        : Job(std::move(queue)), m_stream(std::move(stream)), m_frame(frame), m_bitStream(bitStream),
          m_turning(turning) {}

private:
    HRESULT work() override {
        if (const DWORD delay = referenceDecoderControl().readDelayMilliseconds)
            Sleep(delay);
        const HRESULT result = m_stream->readFrame(m_frame, m_bitStream, m_header);
        if (SUCCEEDED(result))
            fillSpare(m_bitStream, m_header.headerBytes + m_header.pixelBytes(), m_spare);
        return result;
    }

    void report(IBlackmagicRawCallback& callback, HRESULT result) noexcept override {
        IBlackmagicRawFrame* frame = nullptr;
        if (SUCCEEDED(result))
            result = guarded([&] { return handOut(&frame, new Frame(m_header, m_turning)); });
        crossOut<"IBlackmagicRawCallback::ReadComplete">(
            result, frame,
            [&](HRESULT given, IBlackmagicRawFrame* object) { callback.ReadComplete(this, given, object); });
        if (frame)
            frame->Release();
    }

    void finish() noexcept override {
        m_stream.reset();
        Job::finish();
    }

    std::shared_ptr<PnmStream> m_stream;
    const uint64_t m_frame;
    void* const m_bitStream;
    const Turning m_turning;
    const uint32_t m_spare = spareBytes();
    PictureHeader m_header;
};

constexpr uint8_t kDescending[] = {0, 1, 2, 3}, kAscending[] = {3, 2, 1, 0}, kShuffled[] = {2, 0, 3, 0, 1};

/// The order in which the scales' resolutions are listed.
std::span<const uint8_t> listing() {
    if (referenceDecoderHas(ReferenceDecoderManners::ascendingResolutions))
        return kAscending;
    if (referenceDecoderHas(ReferenceDecoderManners::shuffledResolutions))
        return kShuffled;
    return kDescending;
}

HRESULT give(auto size, uint32_t* width, uint32_t* height) {
    *width = size.width;
    *height = size.height;
    return S_OK;
}

} // namespace

Clip::Clip(std::shared_ptr<JobQueue> queue, std::shared_ptr<PnmStream> stream, Turning turning)
    : m_queue(std::move(queue)), m_stream(std::move(stream)), m_turning(turning),
      m_hasLut(referenceDecoderControl().clipsHaveLut != 0) {}

void Clip::finish() noexcept {
    m_stream.reset();
    m_queue.reset();
}

Clip::Size Clip::sizeAt(const Scale& scale, ReferenceDecoderManners asStored) const {
    const PictureHeader& picture = m_stream->picture();
    Size size{reducedSide(picture.width, scale.factor), reducedSide(picture.height, scale.factor)};
    if (m_turning.swapsSides() && !referenceDecoderHas(asStored))
        std::swap(size.width, size.height);
    return size;
}

Clip::Size Clip::fullSize() const {
    return sizeAt(kScales[0], ReferenceDecoderManners::sizeBeforeTurning);
}

HRESULT Clip::GetWidth(uint32_t* width) {
    return cross<"IBlackmagicRawClip::GetWidth">(
        [&] {
            *width = fullSize().width;
            return S_OK;
        },
        width);
}

HRESULT Clip::GetHeight(uint32_t* height) {
    return cross<"IBlackmagicRawClip::GetHeight">(
        [&] {
            *height = fullSize().height;
            return S_OK;
        },
        height);
}

HRESULT Clip::GetFrameRate(float* frameRate) {
    return cross<"IBlackmagicRawClip::GetFrameRate">(
        [&] {
            *frameRate = m_stream->frameRate();
            return S_OK;
        },
        frameRate);
}

HRESULT Clip::GetFrameCount(uint64_t* frameCount) {
    return cross<"IBlackmagicRawClip::GetFrameCount">(
        [&] {
            *frameCount = m_stream->frameCount();
            return S_OK;
        },
        frameCount);
}

HRESULT Clip::CloneClipProcessingAttributes(IBlackmagicRawClipProcessingAttributes** attributes) {
    return cross<"IBlackmagicRawClip::CloneClipProcessingAttributes">(
        [&] { return handOut(attributes, new ClipAttributes(m_hasLut)); }, attributes);
}

HRESULT Clip::GetBitStreamSizeBytes(uint64_t frameIndex, uint32_t* sizeBytes) {
    return cross<"IBlackmagicRawClipEx::GetBitStreamSizeBytes">(
        [&] {
            const HRESULT result = m_stream->frameBytes(frameIndex, *sizeBytes);
            *sizeBytes += spareBytes();
            return result;
        },
        sizeBytes);
}

HRESULT Clip::CreateJobReadFrame(uint64_t frameIndex, void* bitStream, uint32_t bitStreamSizeBytes,
                                 IBlackmagicRawJob** job) {
    return cross<"IBlackmagicRawClipEx::CreateJobReadFrame">(
        [&] {
            uint32_t needed = 0;
            const HRESULT result = m_stream->frameBytes(frameIndex, needed);
            if (FAILED(result))
                return result;
            needed += spareBytes();
            if (bitStreamSizeBytes < needed ||
                !fitsBuffer(bitStream, needed, blackmagicRawResourceTypeBufferCPU))
                return badArgument();
            return handOut(job, new ReadJob(m_queue, m_stream, frameIndex, bitStream, m_turning));
        },
        job);
}

HRESULT Clip::GetResolutionCount(uint32_t* count) {
    return cross<"IBlackmagicRawClipResolutions::GetResolutionCount">(
        [&] {
            *count = static_cast<uint32_t>(listing().size());
            return S_OK;
        },
        count);
}

HRESULT Clip::GetResolution(uint32_t index, uint32_t* width, uint32_t* height) {
    return cross<"IBlackmagicRawClipResolutions::GetResolution">(
        [&] {
            const auto listed = listing();
            if (index >= listed.size())
                return badArgument();
            return give(sizeAt(kScales[listed[index]]), width, height);
        },
        width, height);
}

HRESULT Clip::GetClosestResolutionForScale(BlackmagicRawResolutionScale scale, uint32_t* width,
                                           uint32_t* height) {
    return cross<"IBlackmagicRawClipResolutions::GetClosestResolutionForScale">(
        [&] {
            const Scale* known = findScale(scale);
            return known ? give(sizeAt(*known), width, height) : badArgument();
        },
        width, height);
}

HRESULT Clip::GetClosestScaleForResolution(uint32_t width, uint32_t height,
                                           BlackmagicRawResolutionScale* scale) {
    return cross<"IBlackmagicRawClipResolutions::GetClosestScaleForResolution">(
        [&] {
            int64_t smallest = std::numeric_limits<int64_t>::max();
            for (const Scale& candidate : kScales) {
                const Size size = sizeAt(candidate);
                const int64_t distance =
                    std::abs(int64_t{size.width} - width) + std::abs(int64_t{size.height} - height);
                if (distance < smallest) {
                    smallest = distance;
                    *scale = candidate.code;
                }
            }
            return S_OK;
        },
        scale);
}

} // namespace reference
