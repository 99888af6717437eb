// The buffers of one request, and the jobs that work on them.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include <wrl/client.h>

#include "BlackmagicRawAPI.h"
#include "RequestIdentity.h"
#include "Utils/vdStatus.h"

class brCodecSession;

/// One decoder resource. Capacity is what is really held: 0 whenever there is no resource.
struct brBuffer {
    enum class Side { host, device };
    Side side = Side::host;
    uint32_t capacity = 0; ///< bytes
    void* resource = nullptr;
};

/// Holds every buffer of one request, sizes each from the decoder's own queries, reuses it while it is large
/// enough, and creates the request's jobs. Works on the CPU or on a GPU; fixed at construction. Used before
/// the request is submitted or under the request's lock; has no lock of its own. A job handed out is the
/// caller's.
class brBufferManager {
public:
    using Job = Microsoft::WRL::ComPtr<IBlackmagicRawJob>;

    /// Keeps a reference to the resource manager, so that the buffers can be given back whenever this goes.
    /// The decoders stay the decode manager's, which outlive every job. A CUDA device without free memory
    /// makes this a CPU manager.
    brBufferManager(IBlackmagicRawResourceManager* resourceManager,
                    IBlackmagicRawManualDecoderFlow1* manualDecoderCPU,
                    IBlackmagicRawManualDecoderFlow2* manualDecoderGPU,
                    BlackmagicRawResourceType resourceType, void* context, void* commandQueue);
    ~brBufferManager();
    brBufferManager(const brBufferManager&) = delete;
    brBufferManager& operator=(const brBufferManager&) = delete;

    /// Sizes and fills the frame state; both attribute objects may be null.
    vdStatus populateFrameStateBuffer(IBlackmagicRawFrame* frame,
                                      IBlackmagicRawClipProcessingAttributes* clipAttributes,
                                      IBlackmagicRawFrameProcessingAttributes* frameAttributes);
    /// `corrupted` tells an unreadable frame from other failures.
    vdStatus createReadJob(IBlackmagicRawClipEx* clip, uint64_t frameIndex, Job& job, bool& corrupted);
    vdStatus createDecodeJob(Job& job);
    vdStatus createProcessJob(Job& job);

    /// Makes the caller's memory the processed buffer; it stays the caller's.
    void setAllocatedProcessedBuffer(void* buffer, uint32_t sizeBytes);
    /// Picks up the clip's post-3D LUT; a clip without one is a success.
    vdStatus fillLut3DBuffersFromClipProcessing(IBlackmagicRawClipProcessingAttributes* clipAttributes);
    /// The processed image in host memory: on the CPU `host` is set to the buffer itself; on a CUDA device
    /// the image is copied to `host`, never more than `hostSizeBytes`.
    vdStatus getProcessedBufferOnHost(void*& host, uint64_t hostSizeBytes) const;
    /// What the process job says it wrote. The buffer's capacity follows it downwards only.
    void setProcessedImageSize(uint32_t sizeBytes);

    std::shared_ptr<brCodecSession> m_session; ///< what the buffers need to the end; so it goes last
    brRequestIdentity m_identity;
    Microsoft::WRL::ComPtr<IBlackmagicRawResourceManager> m_resourceManager;
    IBlackmagicRawManualDecoderFlow1* m_manualDecoderCPU;        ///< not owned
    IBlackmagicRawManualDecoderFlow2* m_manualDecoderGPU;        ///< not owned; may be null on the CPU
    Microsoft::WRL::ComPtr<IBlackmagicRawPost3DLUT> m_post3DLUT; ///< owns the two below, which jobs read
    void* m_post3DLUTGPU = nullptr;
    void* m_post3DLUTCPU = nullptr;
    void* m_context;
    void* m_commandQueue;
    bool m_isGPU;
    BlackmagicRawResourceType m_resourceType;
    brBuffer m_bitStream;
    brBuffer m_frameState;
    brBuffer m_decodedBufferCPU;
    brBuffer m_decodedBufferGPU;
    brBuffer m_workingBuffer;
    brBuffer m_processedBuffer;
    bool m_ownsProcessedBuffer = true;
    void* m_finalImageBuffer = nullptr; ///< the caller's

private:
    /// The texts of one buffer's log line and failures, and the operation under whose name the line stands.
    struct GrowTexts {
        const char* operation;
        std::string_view allocating;
        std::string_view releaseFailed;
        std::string_view createFailed;
    };
    vdStatus grow(brBuffer& buffer, uint32_t neededBytes, BlackmagicRawResourceUsage usage,
                  const GrowTexts& texts);
    vdStatus releaseBuffer(brBuffer& buffer, std::string_view failed);
    vdStatus createBuffer(brBuffer& buffer, uint32_t sizeBytes, BlackmagicRawResourceUsage usage,
                          std::string_view failed) const;
    HRESULT releaseResource(brBuffer& buffer) const noexcept;
    void releaseAtEnd(brBuffer& buffer, std::string_view name) noexcept;
    vdStatus growDecoded(uint32_t neededBytes);
    vdStatus growProcessed(uint32_t neededBytes, const GrowTexts& texts);
    void useCPU();
    /// Runs `work` with the decoder of the side that this works on.
    template <class Work>
    vdStatus withDecoder(Work&& work) {
        return m_isGPU ? work(m_manualDecoderGPU) : work(m_manualDecoderCPU);
    }
    vdStatus createProcessJobCPU(Job& job);
    vdStatus createProcessJobGPU(Job& job);
};
