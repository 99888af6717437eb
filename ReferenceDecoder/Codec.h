#pragma once

#include "Decoder.h"
#include "Geometry.h"

namespace reference {

class Configuration : public Facet<IBlackmagicRawConfiguration> {
public:
    Configuration(Counted& object, IUnknown& identity, CodecState& codec)
        : Facet(object, identity), m_codec(codec) {}

    HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline, void** context,
                                          void** commandQueue) override;
    HRESULT STDMETHODCALLTYPE IsPipelineSupported(BlackmagicRawPipeline pipeline, BOOL* isSupported) override;
    HRESULT STDMETHODCALLTYPE GetCPUThreads(uint32_t* threadCount) override;
    HRESULT STDMETHODCALLTYPE GetMaxCPUThreadCount(uint32_t* threadCount) override;
    HRESULT STDMETHODCALLTYPE GetWriteMetadataPerFrame(BOOL* writePerFrame) override;
    HRESULT STDMETHODCALLTYPE SetFromDevice(IBlackmagicRawPipelineDevice* device) override;
    HRESULT STDMETHODCALLTYPE GetVersion(BSTR* version) override;
    HRESULT STDMETHODCALLTYPE GetCameraSupportVersion(BSTR* version) override;

private:
    CodecState& m_codec;
};

class ConfigurationEx : public Facet<IBlackmagicRawConfigurationEx> {
public:
    using Facet::Facet;
    HRESULT STDMETHODCALLTYPE GetResourceManager(IBlackmagicRawResourceManager** resourceManager) override;
};

/// The codec with its other interfaces as parts of it. When the last reference to any of them goes, running
/// jobs are waited for and the worker threads end.
class Codec : public Object<"IBlackmagicRaw", IBlackmagicRaw> {
public:
    HRESULT STDMETHODCALLTYPE OpenClip(BSTR fileName, IBlackmagicRawClip** clip) override;
    HRESULT STDMETHODCALLTYPE OpenClipWithGeometry(BSTR fileName, IBlackmagicRawClipGeometry* geometry,
                                                   IBlackmagicRawClip** clip) override;
    HRESULT STDMETHODCALLTYPE SetCallback(IBlackmagicRawCallback* callback) override;
    HRESULT STDMETHODCALLTYPE FlushJobs() override;

protected:
    IUnknown* facet(REFIID identifier) override;
    void finish() noexcept override;

private:
    HRESULT open(BSTR fileName, const Geometry* geometry, IBlackmagicRawClip** clip) const;

    CodecState m_state;
    Configuration m_configuration{*this, *this, m_state};
    ConfigurationEx m_configurationEx{*this, *this};
    CpuDecoder m_cpuDecoder{*this, *this, m_state};
    GpuDecoder m_gpuDecoder{*this, *this, m_state};
};

} // namespace reference
