#include "Codec.h"

#include "Clip.h"
#include "Pipelines.h"
#include "Resources.h"

namespace reference {

HRESULT Configuration::GetPipeline(BlackmagicRawPipeline* pipeline, void** context, void** commandQueue) {
    return cross<"IBlackmagicRawConfiguration::GetPipeline">(
        [&] {
            *pipeline = m_codec.pipeline;
            const bool isGpu = *pipeline == blackmagicRawPipelineCUDA;
            if (context)
                *context = isGpu ? gpuContext() : nullptr;
            if (commandQueue)
                *commandQueue = isGpu ? gpuCommandQueue() : nullptr;
            return S_OK;
        },
        pipeline);
}

HRESULT Configuration::IsPipelineSupported(BlackmagicRawPipeline pipeline, BOOL* isSupported) {
    return cross<"IBlackmagicRawConfiguration::IsPipelineSupported">(
        [&] {
            *isSupported = findPipeline(pipeline) != nullptr;
            return S_OK;
        },
        isSupported);
}

HRESULT Configuration::GetCPUThreads(uint32_t* threadCount) {
    return cross<"IBlackmagicRawConfiguration::GetCPUThreads">(
        [&] {
            *threadCount = m_codec.queue->threadLimit();
            return S_OK;
        },
        threadCount);
}

HRESULT Configuration::GetMaxCPUThreadCount(uint32_t* threadCount) {
    return cross<"IBlackmagicRawConfiguration::GetMaxCPUThreadCount">(
        [&] {
            *threadCount = m_codec.queue->threadLimit();
            return S_OK;
        },
        threadCount);
}

HRESULT Configuration::GetWriteMetadataPerFrame(BOOL* writePerFrame) {
    return cross<"IBlackmagicRawConfiguration::GetWriteMetadataPerFrame">([&] { return S_OK; },
                                                                          writePerFrame);
}

HRESULT Configuration::SetFromDevice(IBlackmagicRawPipelineDevice* device) {
    return cross<"IBlackmagicRawConfiguration::SetFromDevice">([&] {
        const Device* known = ours<Device>(device);
        if (!known)
            return badArgument();
        m_codec.pipeline = known->pipeline().code;
        return S_OK;
    });
}

HRESULT Configuration::GetVersion(BSTR* version) {
    return cross<"IBlackmagicRawConfiguration::GetVersion">(
        [&] { return handOut(version, L"Reference decoder 1.0"); }, version);
}

HRESULT Configuration::GetCameraSupportVersion(BSTR* version) {
    return cross<"IBlackmagicRawConfiguration::GetCameraSupportVersion">(
        [&] { return handOut(version, L"netpbm P6"); }, version);
}

HRESULT ConfigurationEx::GetResourceManager(IBlackmagicRawResourceManager** resourceManager) {
    return cross<"IBlackmagicRawConfigurationEx::GetResourceManager">(
        [&] {
            const bool holds = referenceDecoderHas(ReferenceDecoderManners::resourceManagerHoldsCodec);
            return handOut(resourceManager, new ResourceManager(holds ? this : nullptr));
        },
        resourceManager);
}

HRESULT Codec::OpenClip(BSTR fileName, IBlackmagicRawClip** clip) {
    return cross<"IBlackmagicRaw::OpenClip">([&] { return open(fileName, nullptr, clip); }, clip);
}

HRESULT Codec::OpenClipWithGeometry(BSTR fileName, IBlackmagicRawClipGeometry* geometry,
                                    IBlackmagicRawClip** clip) {
    return cross<"IBlackmagicRaw::OpenClipWithGeometry">(
        [&] {
            const Geometry* known = ours<Geometry>(geometry);
            return known ? open(fileName, known, clip) : badArgument();
        },
        clip);
}

HRESULT Codec::open(BSTR fileName, const Geometry* geometry, IBlackmagicRawClip** clip) const {
    if (!fileName || !*fileName)
        return E_INVALIDARG; // a path that could not be converted is no fault of the calling code
    std::shared_ptr<PnmStream> stream;
    const HRESULT result = PnmStream::open(fileName, stream);
    if (FAILED(result))
        return result;
    Turning turning;
    if (geometry && geometry->usesOrientation())
        turning.orientation = stream->picture().orientation;
    turning.bottomRowFirst = geometry && geometry->isFlippedVertically();
    return handOut(clip, new Clip(m_state.queue, std::move(stream), turning));
}

HRESULT Codec::SetCallback(IBlackmagicRawCallback* callback) {
    return cross<"IBlackmagicRaw::SetCallback">([&] {
        m_state.queue->setCallback(callback);
        return S_OK;
    });
}

HRESULT Codec::FlushJobs() {
    return cross<"IBlackmagicRaw::FlushJobs">([&] {
        m_state.queue->flush();
        return S_OK;
    });
}

IUnknown* Codec::facet(REFIID identifier) {
    if (identifier == __uuidof(IBlackmagicRawConfiguration))
        return &m_configuration;
    if (identifier == __uuidof(IBlackmagicRawConfigurationEx))
        return &m_configurationEx;
    if (identifier == __uuidof(IBlackmagicRawManualDecoderFlow1))
        return &m_cpuDecoder;
    if (identifier == __uuidof(IBlackmagicRawManualDecoderFlow2))
        return &m_gpuDecoder;
    return nullptr;
}

void Codec::finish() noexcept {
    m_state.queue->stop();
    m_state.queue.reset();
}

} // namespace reference
