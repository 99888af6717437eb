#include "Clip.h"

#include <cstdlib>
#include <limits>

#include "Frame.h"
#include "Pixels.h"
#include "Resources.h"
#include "Scales.h"

namespace reference {

namespace {

class ReadJob : public Job {
public:
    ReadJob(std::shared_ptr<JobQueue> queue, std::shared_ptr<PnmStream> stream, uint64_t frame,
            void* bitStream, bool isFlippedVertically)
        : Job(std::move(queue)), m_stream(std::move(stream)), m_frame(frame), m_bitStream(bitStream),
          m_isFlippedVertically(isFlippedVertically) {}

private:
    HRESULT work() override { return m_stream->readFrame(m_frame, m_bitStream, m_header); }

    void report(IBlackmagicRawCallback& callback, HRESULT result) noexcept override {
        IBlackmagicRawFrame* frame = nullptr;
        if (SUCCEEDED(result))
            result = guarded([&] { return handOut(&frame, new Frame(m_header, m_isFlippedVertically)); });
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
    const bool m_isFlippedVertically;
    PictureHeader m_header;
};

struct Size {
    uint32_t width, height;
};

Size sizeAt(const Scale& scale, const PictureHeader& picture) {
    return {reducedSide(picture.width, scale.factor), reducedSide(picture.height, scale.factor)};
}

HRESULT give(Size size, uint32_t* width, uint32_t* height) {
    *width = size.width;
    *height = size.height;
    return S_OK;
}

} // namespace

Clip::Clip(std::shared_ptr<JobQueue> queue, std::shared_ptr<PnmStream> stream, bool isFlippedVertically)
    : m_queue(std::move(queue)), m_stream(std::move(stream)), m_isFlippedVertically(isFlippedVertically) {
    if (referenceDecoderControl().clipsHaveLut)
        m_lut = ClipLut::create();
}

void Clip::finish() noexcept {
    m_lut.reset();
    m_stream.reset();
    m_queue.reset();
}

HRESULT Clip::GetWidth(uint32_t* width) {
    return cross<"IBlackmagicRawClip::GetWidth">(
        [&] {
            *width = m_stream->picture().width;
            return S_OK;
        },
        width);
}

HRESULT Clip::GetHeight(uint32_t* height) {
    return cross<"IBlackmagicRawClip::GetHeight">(
        [&] {
            *height = m_stream->picture().height;
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
        [&] { return handOut(attributes, new ClipAttributes(m_lut)); }, attributes);
}

HRESULT Clip::GetBitStreamSizeBytes(uint64_t frameIndex, uint32_t* sizeBytes) {
    return cross<"IBlackmagicRawClipEx::GetBitStreamSizeBytes">(
        [&] { return m_stream->frameBytes(frameIndex, *sizeBytes); }, sizeBytes);
}

HRESULT Clip::CreateJobReadFrame(uint64_t frameIndex, void* bitStream, uint32_t bitStreamSizeBytes,
                                 IBlackmagicRawJob** job) {
    return cross<"IBlackmagicRawClipEx::CreateJobReadFrame">(
        [&] {
            uint32_t needed = 0;
            const HRESULT result = m_stream->frameBytes(frameIndex, needed);
            if (FAILED(result))
                return result;
            if (bitStreamSizeBytes < needed ||
                !fitsBuffer(bitStream, needed, blackmagicRawResourceTypeBufferCPU))
                return badArgument();
            return handOut(job, new ReadJob(m_queue, m_stream, frameIndex, bitStream, m_isFlippedVertically));
        },
        job);
}

HRESULT Clip::GetResolutionCount(uint32_t* count) {
    return cross<"IBlackmagicRawClipResolutions::GetResolutionCount">(
        [&] {
            *count = static_cast<uint32_t>(std::size(kScales));
            return S_OK;
        },
        count);
}

HRESULT Clip::GetResolution(uint32_t index, uint32_t* width, uint32_t* height) {
    return cross<"IBlackmagicRawClipResolutions::GetResolution">(
        [&] {
            if (index >= std::size(kScales))
                return badArgument();
            return give(sizeAt(kScales[index], m_stream->picture()), width, height);
        },
        width, height);
}

HRESULT Clip::GetClosestResolutionForScale(BlackmagicRawResolutionScale scale, uint32_t* width,
                                           uint32_t* height) {
    return cross<"IBlackmagicRawClipResolutions::GetClosestResolutionForScale">(
        [&] {
            const Scale* known = findScale(scale);
            return known ? give(sizeAt(*known, m_stream->picture()), width, height) : badArgument();
        },
        width, height);
}

HRESULT Clip::GetClosestScaleForResolution(uint32_t width, uint32_t height,
                                           BlackmagicRawResolutionScale* scale) {
    return cross<"IBlackmagicRawClipResolutions::GetClosestScaleForResolution">(
        [&] {
            int64_t smallest = std::numeric_limits<int64_t>::max();
            for (const Scale& candidate : kScales) {
                const Size size = sizeAt(candidate, m_stream->picture());
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
