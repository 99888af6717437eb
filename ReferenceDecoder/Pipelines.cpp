#include "Pipelines.h"

#include <atomic>
#include <iterator>

#include "Resources.h"

namespace reference {

namespace {

/// The GPU first: a caller that takes the first one it sees gets it.
constexpr Pipeline kPipelines[] = {
    {blackmagicRawPipelineCUDA, L"CUDA", L"Reference CUDA"},
    {blackmagicRawPipelineCPU, L"CPU", L"Reference CPU"},
};

std::atomic<int> s_gpuHolders = 0;

} // namespace

const Pipeline* findPipeline(BlackmagicRawPipeline code) {
    for (const Pipeline& pipeline : kPipelines)
        if (pipeline.code == code)
            return &pipeline;
    return nullptr;
}

Device::Device(const Pipeline& pipeline) : m_pipeline(pipeline) {
    s_gpuHolders += isGpu();
}

void Device::finish() noexcept {
    s_gpuHolders -= isGpu();
}

bool isGpuHeld() {
    return s_gpuHolders > 0;
}

HRESULT Device::GetInstructionSet(BlackmagicRawInstructionSet* instructionSet) {
    return cross<"IBlackmagicRawPipelineDevice::GetInstructionSet">(
        [&] {
            *instructionSet = blackmagicRawInstructionSetSSE41;
            return S_OK;
        },
        instructionSet);
}

HRESULT Device::GetIndex(uint32_t* deviceIndex) {
    return cross<"IBlackmagicRawPipelineDevice::GetIndex">([&] { return S_OK; }, deviceIndex);
}

HRESULT Device::GetName(BSTR* name) {
    return cross<"IBlackmagicRawPipelineDevice::GetName">(
        [&] { return handOut(name, m_pipeline.deviceName); }, name);
}

HRESULT Device::GetInterop(BlackmagicRawInterop* interop) {
    return cross<"IBlackmagicRawPipelineDevice::GetInterop">(
        [&] {
            *interop = blackmagicRawInteropNone;
            return S_OK;
        },
        interop);
}

HRESULT Device::GetPipeline(BlackmagicRawPipeline* pipeline, void** context, void** commandQueue) {
    return cross<"IBlackmagicRawPipelineDevice::GetPipeline">(
        [&] {
            *pipeline = m_pipeline.code;
            *context = isGpu() ? gpuContext() : nullptr;
            *commandQueue = isGpu() ? gpuCommandQueue() : nullptr;
            return S_OK;
        },
        pipeline, context, commandQueue);
}

HRESULT Device::GetPipelineName(BSTR* pipelineName) {
    return cross<"IBlackmagicRawPipelineDevice::GetPipelineName">(
        [&] { return handOut(pipelineName, m_pipeline.name); }, pipelineName);
}

HRESULT DeviceIterator::CreateDevice(IBlackmagicRawPipelineDevice** device) {
    return cross<"IBlackmagicRawPipelineDeviceIterator::CreateDevice">(
        [&] { return handOut(device, new Device(m_pipeline)); }, device);
}

HRESULT PipelineIterator::Next() {
    return cross<"IBlackmagicRawPipelineIterator::Next">([&] {
        if (m_position < std::size(kPipelines))
            ++m_position;
        return m_position < std::size(kPipelines) ? S_OK : S_FALSE;
    });
}

HRESULT PipelineIterator::GetPipeline(BlackmagicRawPipeline* pipeline) {
    return cross<"IBlackmagicRawPipelineIterator::GetPipeline">(
        [&] {
            if (m_position >= std::size(kPipelines))
                return E_FAIL;
            *pipeline = kPipelines[m_position].code;
            return S_OK;
        },
        pipeline);
}

} // namespace reference
