// The job completions: carry each request from its read job to its end.
#pragma once

#include <functional>

#include "BlackmagicRawAPI.h"

class vdBRAW_Request;

/// What a trim job carries as its user data.
struct brTrimContext {
    std::function<void(float percent)> progress; ///< may be empty
    int32_t result = 0;
};

/// Called by the decoder library on its own threads, for all requests at once; keeps no state. The manager
/// owns and deletes it: references are not counted. Each completion works on the request that its job
/// carries, under that request's lock; nothing is ever thrown into the library.
class vdBRAW_Manager_Callback final : public IBlackmagicRawCallback {
public:
    virtual ~vdBRAW_Manager_Callback() = default;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOTIMPL; }
    ULONG STDMETHODCALLTYPE AddRef() override { return 0; }
    ULONG STDMETHODCALLTYPE Release() override { return 0; }

    void STDMETHODCALLTYPE ReadComplete(IBlackmagicRawJob* job, HRESULT result,
                                        IBlackmagicRawFrame* frame) override;
    void STDMETHODCALLTYPE DecodeComplete(IBlackmagicRawJob* job, HRESULT result) override;
    void STDMETHODCALLTYPE ProcessComplete(IBlackmagicRawJob* job, HRESULT result,
                                           IBlackmagicRawProcessedImage* processedImage) override;
    void STDMETHODCALLTYPE TrimProgress(IBlackmagicRawJob* job, float progress) override;
    void STDMETHODCALLTYPE TrimComplete(IBlackmagicRawJob* job, HRESULT result) override;
    void STDMETHODCALLTYPE SidecarMetadataParseWarning(IBlackmagicRawClip*, BSTR, uint32_t, BSTR) override {}
    void STDMETHODCALLTYPE SidecarMetadataParseError(IBlackmagicRawClip*, BSTR, uint32_t, BSTR) override {}
    void STDMETHODCALLTYPE PreparePipelineComplete(void*, HRESULT) override {}
};
