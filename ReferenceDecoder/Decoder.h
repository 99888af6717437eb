// The manual decoders: frame states, decode jobs and process jobs.
#pragma once

#include "JobQueue.h"

namespace reference {

/// What the parts of a codec share.
struct CodecState {
    std::shared_ptr<JobQueue> queue = std::make_shared<JobQueue>();
    std::atomic<BlackmagicRawPipeline> pipeline{blackmagicRawPipelineCPU};
};

/// What both flows do alike. `flow` is the interface's name in the recording.
template <CallName flow, class Interface>
class ManualDecoder : public Facet<Interface> {
public:
    ManualDecoder(Counted& object, IUnknown& identity, CodecState& codec)
        : Facet<Interface>(object, identity), m_codec(codec) {}

    HRESULT STDMETHODCALLTYPE GetFrameStateSizeBytes(uint32_t* sizeBytes) override;
    HRESULT STDMETHODCALLTYPE PopulateFrameStateBuffer(
        IBlackmagicRawFrame* frame, IBlackmagicRawClipProcessingAttributes* clipAttributes,
        IBlackmagicRawFrameProcessingAttributes* frameAttributes, void* frameState,
        uint32_t frameStateSizeBytes) override;
    HRESULT STDMETHODCALLTYPE GetDecodedSizeBytes(void* frameState, uint32_t* sizeBytes) override;
    HRESULT STDMETHODCALLTYPE GetProcessedSizeBytes(void* frameState, uint32_t* sizeBytes) override;
    HRESULT STDMETHODCALLTYPE CreateJobDecode(void* frameState, void* bitStream, void* decoded,
                                              IBlackmagicRawJob** job) override;

protected:
    CodecState& m_codec;
};

/// All on the CPU.
class CpuDecoder
    : public ManualDecoder<"IBlackmagicRawManualDecoderFlow1", IBlackmagicRawManualDecoderFlow1> {
public:
    using ManualDecoder::ManualDecoder;
    HRESULT STDMETHODCALLTYPE CreateJobProcess(void* frameState, void* decoded, void* processed,
                                               void* post3DLUT, IBlackmagicRawJob** job) override;
};

/// Decodes to host memory, processes in device memory; only on a codec that was set to the GPU's device.
class GpuDecoder
    : public ManualDecoder<"IBlackmagicRawManualDecoderFlow2", IBlackmagicRawManualDecoderFlow2> {
public:
    using ManualDecoder::ManualDecoder;
    HRESULT STDMETHODCALLTYPE GetWorkingSizeBytes(void* frameState, uint32_t* sizeBytes) override;
    HRESULT STDMETHODCALLTYPE CreateJobProcess(void* context, void* commandQueue, void* frameState,
                                               void* decoded, void* working, void* processed, void* post3DLUT,
                                               IBlackmagicRawJob** job) override;
};

} // namespace reference
