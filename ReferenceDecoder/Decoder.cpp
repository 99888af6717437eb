#include "Decoder.h"

#include <cstring>
#include <vector>

#include "Attributes.h"
#include "Frame.h"
#include "Pixels.h"
#include "Resources.h"

namespace reference {

namespace {

constexpr uint64_t kFrameStateMagic = 0x65746174736D7266; // "frmstate"

/// What the frame-state buffer holds: all that the decode and process jobs need to know about a frame. Plain
/// data: the buffer is the caller's, and may be gone before the jobs run, so that they take a copy.
struct FrameState {
    uint64_t magic;
    uint32_t sourceWidth, sourceHeight, maximum, bytesPerSample, headerBytes;
    uint32_t factor;
    Turning turning;
    BlackmagicRawResourceFormat format;
    uint32_t spare; ///< bytes that each buffer has beyond what is in it

    uint32_t width() const { return reducedSide(turning.swapsSides() ? sourceHeight : sourceWidth, factor); }
    uint32_t height() const { return reducedSide(turning.swapsSides() ? sourceWidth : sourceHeight, factor); }
    uint64_t pixels() const { return uint64_t{width()} * height(); }
    uint64_t bitStreamBytes() const {
        return headerBytes + uint64_t{sourceWidth} * sourceHeight * 3 * bytesPerSample;
    }
    uint32_t decodedPixelBytes() const { return 3 * bytesPerSample; }
    uint64_t decodedBytes() const { return pixels() * decodedPixelBytes(); }
    const ResourceLayout& layout() const { return *findResourceLayout(format); }
    uint64_t processedBytes() const { return pixels() * layout().bytesPerPixel; }
};

/// Null unless the buffer holds a populated state.
const FrameState* stateIn(const void* buffer) {
    if (!fitsBuffer(buffer, sizeof(FrameState), blackmagicRawResourceTypeBufferCPU))
        return nullptr;
    const auto* state = static_cast<const FrameState*>(buffer);
    return state->magic == kFrameStateMagic && findResourceLayout(state->format) ? state : nullptr;
}

/// One of a frame state's sizes, where it fits what the contract can say.
HRESULT giveSize(const void* frameState, uint64_t (FrameState::*size)() const, uint32_t* sizeBytes) {
    const FrameState* state = stateIn(frameState);
    if (!state)
        return badArgument();
    const uint64_t bytes = (state->*size)() + state->spare;
    if (bytes > 0xFFFFFFFF)
        return HRESULT_FROM_WIN32(ERROR_ARITHMETIC_OVERFLOW);
    *sizeBytes = static_cast<uint32_t>(bytes);
    return S_OK;
}

class DecodeJob : public Job {
public:
    DecodeJob(std::shared_ptr<JobQueue> queue, const FrameState& state, const void* bitStream, void* decoded)
        : Job(std::move(queue)), m_state(state), m_bitStream(static_cast<const uint8_t*>(bitStream)),
          m_decoded(decoded) {}

private:
    HRESULT work() override {
        if (m_state.turning.orientation == 1)
            reduceTo(m_decoded, m_state.turning.bottomRowFirst);
        else
            reduceAndTurn();
        fillSpare(m_decoded, m_state.decodedBytes(), m_state.spare);
        return S_OK;
    }
    void reduceTo(void* picture, bool bottomRowFirst) const {
        reducePicture(m_bitStream + m_state.headerBytes, m_state.sourceWidth, m_state.sourceHeight,
                      m_state.bytesPerSample, m_state.factor, bottomRowFirst, picture);
    }
    void reduceAndTurn() const {
        std::vector<uint8_t> reduced(static_cast<size_t>(m_state.decodedBytes()));
        reduceTo(reduced.data(), false);
        turnPicture(reduced.data(), reducedSide(m_state.sourceWidth, m_state.factor),
                    reducedSide(m_state.sourceHeight, m_state.factor), m_state.decodedPixelBytes(),
                    m_state.turning, m_decoded);
    }
    void report(IBlackmagicRawCallback& callback, HRESULT result) noexcept override {
        crossOut<"IBlackmagicRawCallback::DecodeComplete">(
            result, this, [&](HRESULT given, Job*) { callback.DecodeComplete(this, given); });
    }

    const FrameState m_state;
    const uint8_t* const m_bitStream;
    void* const m_decoded;
};

class ProcessedImage : public Object<"IBlackmagicRawProcessedImage", IBlackmagicRawProcessedImage> {
public:
    ProcessedImage(const FrameState& state, BlackmagicRawResourceType type) : m_state(state), m_type(type) {}

    HRESULT STDMETHODCALLTYPE GetWidth(uint32_t* width) override {
        return give<"IBlackmagicRawProcessedImage::GetWidth">(width, m_state.width());
    }
    HRESULT STDMETHODCALLTYPE GetHeight(uint32_t* height) override {
        return give<"IBlackmagicRawProcessedImage::GetHeight">(height, m_state.height());
    }
    HRESULT STDMETHODCALLTYPE GetResourceType(BlackmagicRawResourceType* type) override {
        return give<"IBlackmagicRawProcessedImage::GetResourceType">(type, m_type);
    }
    HRESULT STDMETHODCALLTYPE GetResourceFormat(BlackmagicRawResourceFormat* format) override {
        return give<"IBlackmagicRawProcessedImage::GetResourceFormat">(format, m_state.format);
    }
    HRESULT STDMETHODCALLTYPE GetResourceSizeBytes(uint32_t* sizeBytes) override {
        return give<"IBlackmagicRawProcessedImage::GetResourceSizeBytes">(
            sizeBytes, static_cast<uint32_t>(m_state.processedBytes() + m_state.spare));
    }

private:
    template <CallName name>
    HRESULT give(uint32_t* place, uint32_t value) {
        return cross<name>(
            [&] {
                *place = value;
                return S_OK;
            },
            place);
    }

    const FrameState m_state;
    const BlackmagicRawResourceType m_type;
};

bool needsWorkingMemory() {
    return !referenceDecoderHas(ReferenceDecoderManners::noWorkingMemory);
}

class ProcessJob : public Job {
public:
    struct Buffers {
        const void* decoded;
        void* working; ///< null on the CPU
        void* processed;
        const void* lut; ///< may be null
        BlackmagicRawResourceType type;
        bool hasLut() const { return lut && fitsBuffer(lut, 1, type); }
    };
    ProcessJob(std::shared_ptr<JobQueue> queue, const FrameState& state, const Buffers& buffers)
        : Job(std::move(queue)), m_state(state), m_buffers(buffers) {}

private:
    HRESULT work() override {
        if (m_buffers.lut && !m_buffers.hasLut()) // gone while the job waited
            return badArgument();
        const void* source = m_buffers.decoded;
        if (m_buffers.working) // the device's scratch memory takes the picture while it is converted
            source = std::memcpy(m_buffers.working, source, static_cast<size_t>(m_state.decodedBytes()));
        const ResourceLayout& layout = m_state.layout();
        const auto convert = m_state.bytesPerSample == 1 ? layout.convert8 : layout.convert16;
        convert(source, static_cast<size_t>(m_state.pixels()), m_state.maximum, m_buffers.processed);
        fillSpare(m_buffers.processed, m_state.processedBytes(), m_state.spare);
        return S_OK;
    }

    void report(IBlackmagicRawCallback& callback, HRESULT result) noexcept override {
        IBlackmagicRawProcessedImage* image = nullptr;
        if (SUCCEEDED(result))
            result = guarded([&] { return handOut(&image, new ProcessedImage(m_state, m_buffers.type)); });
        crossOut<"IBlackmagicRawCallback::ProcessComplete">(
            result, image, [&](HRESULT given, IBlackmagicRawProcessedImage* object) {
                callback.ProcessComplete(this, given, object);
            });
        if (image)
            image->Release();
    }

    const FrameState m_state;
    const Buffers m_buffers;
};

/// The caller's buffers checked against the frame, then the job.
HRESULT createProcessJob(const CodecState& codec, const void* frameState, const ProcessJob::Buffers& buffers,
                         IBlackmagicRawJob** job) {
    const FrameState* state = stateIn(frameState);
    const bool isGpu = buffers.type != blackmagicRawResourceTypeBufferCPU;
    const auto fits = [&](const void* buffer, uint64_t bytes) {
        return fitsBuffer(buffer, bytes + state->spare, buffers.type);
    };
    if (!state || !fits(buffers.decoded, state->decodedBytes()) ||
        !fits(buffers.processed, state->processedBytes()) ||
        (isGpu && (buffers.working || needsWorkingMemory()) &&
         !fits(buffers.working, state->decodedBytes())) ||
        (buffers.lut && !buffers.hasLut()))
        return badArgument();
    if (buffers.lut)
        ++account().jobsWithLut;
    return handOut(job, new ProcessJob(codec.queue, *state, buffers));
}

} // namespace

template <CallName flow, class Interface>
HRESULT ManualDecoder<flow, Interface>::GetFrameStateSizeBytes(uint32_t* sizeBytes) {
    return this->template cross<flow + CallName("::GetFrameStateSizeBytes")>(
        [&] {
            *sizeBytes = sizeof(FrameState) + spareBytes();
            return S_OK;
        },
        sizeBytes);
}

template <CallName flow, class Interface>
HRESULT ManualDecoder<flow, Interface>::PopulateFrameStateBuffer(
    IBlackmagicRawFrame* frame, IBlackmagicRawClipProcessingAttributes* clipAttributes,
    IBlackmagicRawFrameProcessingAttributes* frameAttributes, void* frameState,
    uint32_t frameStateSizeBytes) {
    return this->template cross<flow + CallName("::PopulateFrameStateBuffer")>([&] {
        const Frame* read = ours<Frame>(frame);
        const uint32_t spare = spareBytes();
        if (!read || frameStateSizeBytes < sizeof(FrameState) + spare ||
            !fitsBuffer(frameState, sizeof(FrameState) + spare, blackmagicRawResourceTypeBufferCPU) ||
            (clipAttributes && !ours<ClipAttributes>(clipAttributes)) ||
            (frameAttributes && !ours<FrameAttributes>(frameAttributes)))
            return badArgument();
        account().statesWithClipAttributes += clipAttributes ? 1 : 0;
        account().statesWithFrameAttributes += frameAttributes ? 1 : 0;
        const PictureHeader& header = read->header();
        const FrameState state{.magic = kFrameStateMagic,
                               .sourceWidth = header.width,
                               .sourceHeight = header.height,
                               .maximum = header.maximum,
                               .bytesPerSample = header.bytesPerSample(),
                               .headerBytes = header.headerBytes,
                               .factor = read->factor(),
                               .turning = read->turning(),
                               .format = read->format(),
                               .spare = spare};
        std::memcpy(frameState, &state, sizeof state);
        fillSpare(frameState, sizeof state, spare);
        return S_OK;
    });
}

template <CallName flow, class Interface>
HRESULT ManualDecoder<flow, Interface>::GetDecodedSizeBytes(void* frameState, uint32_t* sizeBytes) {
    return this->template cross<flow + CallName("::GetDecodedSizeBytes")>(
        [&] { return giveSize(frameState, &FrameState::decodedBytes, sizeBytes); }, sizeBytes);
}

template <CallName flow, class Interface>
HRESULT ManualDecoder<flow, Interface>::GetProcessedSizeBytes(void* frameState, uint32_t* sizeBytes) {
    return this->template cross<flow + CallName("::GetProcessedSizeBytes")>(
        [&] { return giveSize(frameState, &FrameState::processedBytes, sizeBytes); }, sizeBytes);
}

template <CallName flow, class Interface>
HRESULT ManualDecoder<flow, Interface>::CreateJobDecode(void* frameState, void* bitStream, void* decoded,
                                                        IBlackmagicRawJob** job) {
    return this->template cross<flow + CallName("::CreateJobDecode")>(
        [&] {
            const FrameState* state = stateIn(frameState);
            if (!state ||
                !fitsBuffer(bitStream, state->bitStreamBytes(), blackmagicRawResourceTypeBufferCPU) ||
                !fitsBuffer(decoded, state->decodedBytes() + state->spare,
                            blackmagicRawResourceTypeBufferCPU))
                return badArgument();
            return handOut(job, new DecodeJob(m_codec.queue, *state, bitStream, decoded));
        },
        job);
}

template class ManualDecoder<"IBlackmagicRawManualDecoderFlow1", IBlackmagicRawManualDecoderFlow1>;
template class ManualDecoder<"IBlackmagicRawManualDecoderFlow2", IBlackmagicRawManualDecoderFlow2>;

HRESULT CpuDecoder::CreateJobProcess(void* frameState, void* decoded, void* processed, void* post3DLUT,
                                     IBlackmagicRawJob** job) {
    return cross<"IBlackmagicRawManualDecoderFlow1::CreateJobProcess">(
        [&] {
            return createProcessJob(
                m_codec, frameState,
                {decoded, nullptr, processed, post3DLUT, blackmagicRawResourceTypeBufferCPU}, job);
        },
        job);
}

HRESULT GpuDecoder::GetWorkingSizeBytes(void* frameState, uint32_t* sizeBytes) {
    return cross<"IBlackmagicRawManualDecoderFlow2::GetWorkingSizeBytes">(
        [&] {
            const HRESULT result = giveSize(frameState, &FrameState::decodedBytes, sizeBytes);
            if (!needsWorkingMemory())
                *sizeBytes = 0;
            return result;
        },
        sizeBytes);
}

HRESULT GpuDecoder::CreateJobProcess(void* context, void* commandQueue, void* frameState, void* decoded,
                                     void* working, void* processed, void* post3DLUT,
                                     IBlackmagicRawJob** job) {
    return cross<"IBlackmagicRawManualDecoderFlow2::CreateJobProcess">(
        [&] {
            if (context != gpuContext() || commandQueue != gpuCommandQueue() ||
                m_codec.pipeline != blackmagicRawPipelineCUDA)
                return badArgument();
            return createProcessJob(
                m_codec, frameState,
                {decoded, working, processed, post3DLUT, blackmagicRawResourceTypeBufferCUDA}, job);
        },
        job);
}

} // namespace reference
