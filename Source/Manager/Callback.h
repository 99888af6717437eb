// The job completions: carry each request from its read job to its end.
#pragma once

#include <atomic>
#include <functional>

#include "BlackmagicRawAPI.h"

class vdBRAW_Request;

/// What a trim job carries as its user data.
struct brTrimContext {
    std::function<void(float percent)> progress; ///< may be empty
    int32_t result = 0;
};

/// Called by the decoder library on its own threads, for all requests at once. References are counted as COM
/// counts them: the creator's is there from the start, and the object goes with the last. Beside that it
/// counts jobs, and keeps no other state. Each completion works on the request that its job carries, under
/// that request's lock, and holds a reference to it until it returns; nothing is thrown into the library.
class vdBRAW_Manager_Callback final : public IBlackmagicRawCallback {
public:
    /// Answers IUnknown and IBlackmagicRawCallback; E_NOTIMPL and null for anything else.
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID identifier, void** result) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override;

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

    /// Sends a request's next job on its way. The request is kept alive from here until the job's completion
    /// has its own reference. The request's lock must not be held: the completion may come before this
    /// returns. A job that could not be submitted leaves no trace.
    HRESULT submit(vdBRAW_Request& request, IBlackmagicRawJob& job) noexcept;
    /// Jobs whose completion has not returned. A completion that finds no request counts as returned too.
    int32_t jobsInFlight() const noexcept { return m_jobsInFlight; }
    ULONG references() const noexcept { return m_references; }

private:
    ~vdBRAW_Manager_Callback() = default;

    std::atomic<ULONG> m_references{1};
    std::atomic<int32_t> m_jobsInFlight{0};
};
