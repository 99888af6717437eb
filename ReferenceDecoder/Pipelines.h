// The pipelines that the library offers, each with one device.
#pragma once

#include "Object.h"

namespace reference {

struct Pipeline {
    BlackmagicRawPipeline code;
    const wchar_t* name;
    const wchar_t* deviceName;
};

/// Null for a pipeline that isn't offered.
const Pipeline* findPipeline(BlackmagicRawPipeline code);

class Device : public Object<"IBlackmagicRawPipelineDevice", IBlackmagicRawPipelineDevice> {
public:
    explicit Device(const Pipeline& pipeline);
    const Pipeline& pipeline() const { return m_pipeline; }
    bool isGpu() const { return m_pipeline.code == blackmagicRawPipelineCUDA; }

    HRESULT STDMETHODCALLTYPE GetInstructionSet(BlackmagicRawInstructionSet* instructionSet) override;
    HRESULT STDMETHODCALLTYPE GetIndex(uint32_t* deviceIndex) override;
    HRESULT STDMETHODCALLTYPE GetName(BSTR* name) override;
    HRESULT STDMETHODCALLTYPE GetInterop(BlackmagicRawInterop* interop) override;
    HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline, void** context,
                                          void** commandQueue) override;
    HRESULT STDMETHODCALLTYPE GetPipelineName(BSTR* pipelineName) override;

private:
    void finish() noexcept override;

    const Pipeline& m_pipeline;
};

/// Whether somebody holds the GPU. Its context and command queue end with its last holder.
bool isGpuHeld();

class DeviceIterator
    : public Object<"IBlackmagicRawPipelineDeviceIterator", IBlackmagicRawPipelineDeviceIterator> {
public:
    explicit DeviceIterator(const Pipeline& pipeline) : m_pipeline(pipeline) {}

    HRESULT STDMETHODCALLTYPE CreateDevice(IBlackmagicRawPipelineDevice** device) override;

private:
    const Pipeline& m_pipeline;
};

class PipelineIterator : public Object<"IBlackmagicRawPipelineIterator", IBlackmagicRawPipelineIterator> {
public:
    HRESULT STDMETHODCALLTYPE Next() override;
    HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline) override;

private:
    size_t m_position = 0;
};

} // namespace reference
