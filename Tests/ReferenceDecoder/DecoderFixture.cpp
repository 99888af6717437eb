#include "DecoderFixture.h"

Decoder::Decoder(bool onGpu) : m_onGpu(onGpu) {
    *factory.GetAddressOf() = createReferenceDecoderFactory();
    ComPtr<IBlackmagicRawPipelineDeviceIterator> devices;
    ComPtr<IBlackmagicRawPipelineDevice> device;
    ComPtr<IBlackmagicRawConfiguration> configuration;
    ComPtr<IBlackmagicRawConfigurationEx> configurationEx;
    BlackmagicRawPipeline pipeline = onGpu ? blackmagicRawPipelineCUDA : blackmagicRawPipelineCPU;
    EXPECT_EQ(factory->CreatePipelineDeviceIterator(pipeline, blackmagicRawInteropNone, &devices), S_OK);
    EXPECT_EQ(devices->CreateDevice(&device), S_OK);
    EXPECT_EQ(device->GetPipeline(&pipeline, &context, &queue), S_OK);
    EXPECT_EQ(context != nullptr && queue != nullptr, onGpu);
    EXPECT_EQ(factory->CreateCodec(&codec), S_OK);
    EXPECT_EQ(codec.As(&configuration), S_OK);
    EXPECT_EQ(configuration->SetFromDevice(device.Get()), S_OK);
    EXPECT_EQ(codec.As(&configurationEx), S_OK);
    EXPECT_EQ(configurationEx->GetResourceManager(&resources), S_OK);
    EXPECT_EQ(codec.As(&m_cpu), S_OK);
    EXPECT_EQ(codec.As(&m_gpu), S_OK);
    EXPECT_EQ(codec->SetCallback(this), S_OK);
}

Decoder::~Decoder() {
    codec.Reset();
    m_gpu->Release();
    m_cpu->Release(); // the last reference: waits for what still runs, which uses this
    m_gpu.Detach();
    m_cpu.Detach();
    for (void* buffer : m_deviceBuffers)
        EXPECT_EQ(resources->ReleaseResource(context, queue, buffer, kDevice), S_OK);
}

HRESULT Decoder::open(const std::filesystem::path& path, bool flipped, IBlackmagicRawClip** clip) {
    ComPtr<IBlackmagicRawClipGeometry> geometry;
    HRESULT result = factory->CreateClipGeometry(&geometry);
    if (SUCCEEDED(result))
        result = geometry->SetVerticalFlip(flipped ? blackmagicRawGeometryFlipVertical
                                                   : blackmagicRawGeometryDisabled);
    const BSTR name = SysAllocString(std::filesystem::path(path).make_preferred().c_str());
    if (SUCCEEDED(result))
        result = codec->OpenClipWithGeometry(name, geometry.Get(), clip);
    SysFreeString(name);
    return result;
}

HRESULT Decoder::submit(IBlackmagicRawClip* clip, Request& request) {
    ComPtr<IBlackmagicRawClipEx> clipEx;
    clip->QueryInterface(__uuidof(IBlackmagicRawClipEx), &clipEx);
    uint32_t bytes = 0;
    HRESULT result = clipEx->GetBitStreamSizeBytes(request.frame, &bytes);
    if (FAILED(result))
        return result;
    request.bitStream.resize(bytes);
    ComPtr<IBlackmagicRawJob> job;
    result = clipEx->CreateJobReadFrame(request.frame, request.bitStream.data(), bytes, &job);
    return FAILED(result) ? result : chain(job.Get(), request);
}

HRESULT Decoder::decode(IBlackmagicRawClip* clip, Request& request) {
    const HRESULT result = submit(clip, request);
    const HRESULT flushed = codec->FlushJobs();
    return FAILED(result) ? result : FAILED(flushed) ? flushed : request.result;
}

HRESULT Decoder::chain(IBlackmagicRawJob* job, Request& request) {
    const HRESULT result = job->SetUserData(&request);
    return FAILED(result) ? result : job->Submit();
}

static Request& requestOf(IBlackmagicRawJob* job) {
    void* userData = nullptr;
    job->GetUserData(&userData);
    return *static_cast<Request*>(userData);
}

template <class Flow>
HRESULT Decoder::startDecode(Flow& flow, Request& request, IBlackmagicRawFrame* frame) {
    uint32_t bytes = 0;
    HRESULT result = flow.GetFrameStateSizeBytes(&bytes);
    if (FAILED(result))
        return result;
    request.state.resize(bytes);
    result = flow.PopulateFrameStateBuffer(frame, nullptr, nullptr, request.state.data(), bytes);
    if (SUCCEEDED(result))
        result = flow.GetDecodedSizeBytes(request.state.data(), &bytes);
    if (FAILED(result))
        return result;
    request.decoded.resize(bytes);
    ComPtr<IBlackmagicRawJob> job;
    result =
        flow.CreateJobDecode(request.state.data(), request.bitStream.data(), request.decoded.data(), &job);
    return FAILED(result) ? result : chain(job.Get(), request);
}

HRESULT Decoder::startProcess(Request& request) {
    void* state = request.state.data();
    uint32_t processedBytes = 0;
    HRESULT result = m_onGpu ? m_gpu->GetProcessedSizeBytes(state, &processedBytes)
                             : m_cpu->GetProcessedSizeBytes(state, &processedBytes);
    if (FAILED(result))
        return result;
    request.processed.resize(processedBytes);
    ComPtr<IBlackmagicRawJob> job;
    if (!m_onGpu)
        result =
            m_cpu->CreateJobProcess(state, request.decoded.data(), request.processed.data(), nullptr, &job);
    else {
        uint32_t workingBytes = 0;
        m_gpu->GetWorkingSizeBytes(state, &workingBytes);
        const auto decodedBytes = static_cast<uint32_t>(request.decoded.size());
        const auto device = [&](uint32_t bytes) {
            void* buffer = nullptr;
            EXPECT_EQ(resources->CreateResource(context, queue, bytes, kDevice,
                                                blackmagicRawResourceUsageReadGPUWriteGPU, &buffer),
                      S_OK);
            m_deviceBuffers.push_back(buffer);
            return buffer;
        };
        void* const decoded = device(decodedBytes);
        void* const working = device(workingBytes);
        m_deviceProcessed = device(processedBytes);
        EXPECT_EQ(resources->CopyResource(context, queue, request.decoded.data(), kHost, decoded, kDevice,
                                          decodedBytes, TRUE),
                  S_OK);
        result = m_gpu->CreateJobProcess(context, queue, state, decoded, working, m_deviceProcessed, nullptr,
                                         &job);
    }
    return FAILED(result) ? result : chain(job.Get(), request);
}

void Decoder::ReadComplete(IBlackmagicRawJob* job, HRESULT result, IBlackmagicRawFrame* frame) {
    Request& request = requestOf(job);
    if (request.onRead)
        request.onRead();
    request.stage = "read";
    request.result = FAILED(result) ? result : frame ? S_OK : E_POINTER;
    if (FAILED(request.result))
        return;
    frame->SetResourceFormat(request.format);
    frame->SetResolutionScale(request.scale);
    request.result =
        m_onGpu ? startDecode(*m_gpu.Get(), request, frame) : startDecode(*m_cpu.Get(), request, frame);
}

void Decoder::DecodeComplete(IBlackmagicRawJob* job, HRESULT result) {
    Request& request = requestOf(job);
    request.stage = "decode";
    request.result = FAILED(result) ? result : startProcess(request);
}

void Decoder::ProcessComplete(IBlackmagicRawJob* job, HRESULT result, IBlackmagicRawProcessedImage* image) {
    Request& request = requestOf(job);
    request.stage = "process";
    request.result = FAILED(result) ? result : image ? S_OK : E_POINTER;
    if (FAILED(request.result))
        return;
    image->GetWidth(&request.width);
    image->GetHeight(&request.height);
    image->GetResourceType(&request.type);
    image->GetResourceFormat(&request.reportedFormat);
    if (m_onGpu)
        std::memcpy(request.processed.data(), m_deviceProcessed, request.processed.size());
}
