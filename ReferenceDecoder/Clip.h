#pragma once

#include "Attributes.h"
#include "JobQueue.h"
#include "Pixels.h"
#include "PnmStream.h"
#include "Scales.h"

namespace reference {

/// An opened clip. Its read jobs share the file with it, so that it may go before they are done.
class Clip : public Object<"IBlackmagicRawClip", IBlackmagicRawClip, IBlackmagicRawClipEx,
                           IBlackmagicRawClipResolutions> {
public:
    Clip(std::shared_ptr<JobQueue> queue, std::shared_ptr<PnmStream> stream, Turning turning);

    HRESULT STDMETHODCALLTYPE GetWidth(uint32_t* width) override;
    HRESULT STDMETHODCALLTYPE GetHeight(uint32_t* height) override;
    HRESULT STDMETHODCALLTYPE GetFrameRate(float* frameRate) override;
    HRESULT STDMETHODCALLTYPE GetFrameCount(uint64_t* frameCount) override;
    HRESULT STDMETHODCALLTYPE
    CloneClipProcessingAttributes(IBlackmagicRawClipProcessingAttributes** attributes) override;

    HRESULT STDMETHODCALLTYPE GetBitStreamSizeBytes(uint64_t frameIndex, uint32_t* sizeBytes) override;
    HRESULT STDMETHODCALLTYPE CreateJobReadFrame(uint64_t frameIndex, void* bitStream,
                                                 uint32_t bitStreamSizeBytes,
                                                 IBlackmagicRawJob** job) override;

    HRESULT STDMETHODCALLTYPE GetResolutionCount(uint32_t* count) override;
    HRESULT STDMETHODCALLTYPE GetResolution(uint32_t index, uint32_t* width, uint32_t* height) override;
    HRESULT STDMETHODCALLTYPE GetClosestResolutionForScale(BlackmagicRawResolutionScale scale,
                                                           uint32_t* width, uint32_t* height) override;
    HRESULT STDMETHODCALLTYPE GetClosestScaleForResolution(uint32_t width, uint32_t height,
                                                           BlackmagicRawResolutionScale* scale) override;

protected:
    void finish() noexcept override;

private:
    struct Size {
        uint32_t width, height;
    };
    /// The picture's size at a scale, before it is turned where the decoder has these manners.
    Size sizeAt(const Scale& scale,
                ReferenceDecoderManners asStored = ReferenceDecoderManners::resolutionsBeforeTurning) const;
    Size fullSize() const;

    std::shared_ptr<JobQueue> m_queue;
    std::shared_ptr<PnmStream> m_stream;
    const Turning m_turning;
    const bool m_hasLut;
};

} // namespace reference
