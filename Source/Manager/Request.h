// A frame request: one processed frame of one clip, in one pixel format, in one final image buffer.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <wrl/client.h>

#include "BlackmagicRawAPI.h"
#include "Clip.h"
#include "ProcessingSettings.h"
#include "RequestIdentity.h"
#include "Utils/vdMutex.h"
#include "Utils/vdStatus.h"
#include "brBufferManager.h"

/// Pixel formats of a final image: channels in memory order, bits per channel, and whether the picture's top
/// row ("UP") or bottom row ("LOW") is stored first. 16-bit channels run from 0 to 32768.
enum class brPixelFormat : uint8_t {
    none = 0,
    ARGB_8_LOW = 1,
    ARGB_16_LOW = 2,
    ARGB_32_LOW = 3,
    BGRA_8_LOW = 4,
    BGRA_16_LOW = 5,
    BGRA_32_LOW = 6,
    ARGB_8_UP = 7,
    ARGB_16_UP = 8,
    ARGB_32_UP = 9,
    BGRA_16_UP = 10,
    BGRA_32_UP = 11,
    RGBA_8_UP = 12,
    BGRA_8_UP = 13,
    RGB_8_UP = 14,
};
/// "BGRA_8_LOW"; the number for a value without a name.
std::string pixelFormatName(brPixelFormat format);
/// 0 for a format without pixels.
uint32_t pixelFormatBytes(brPixelFormat format);

/// A direction's scale: given, or 0 and then full / asked.
struct brScaleRequest {
    float scale = 0;
    int32_t full = 0;
    uint32_t asked = 0;
};

struct brRect {
    int32_t left = 0;
    int32_t top = 0;
    int32_t right = 0;
    int32_t bottom = 0;
    bool operator==(const brRect&) const = default;
};

/// What a request's error code says it failed at.
enum brRequestError : uint32_t {
    brErrorNone = 0,
    brErrorCorruptedFrame = 1,
    brErrorProcessingAttributes = 3,
    brErrorBitmap = 4,
    brErrorSubmission = 5,
    brErrorNoFrame = 6,
    brErrorRead = 7,
    brErrorDecode = 8,
    brErrorProcessCPU = 10,
    brErrorProcessGPU = 11,
    brErrorDelivery = 12,
};

/// Held by shared ownership among its creator, the manager's queue and, while a job is in flight, itself:
/// decoder jobs carry a plain pointer, and a poller may drop a request that has ended at any moment. Set up
/// on the creator's thread; after submission every change happens under m_mutex, on the decoder library's
/// threads. A finished request is never restarted.
class vdBRAW_Request : public std::enable_shared_from_this<vdBRAW_Request> {
public:
    vdBRAW_Request();
    /// Releases the attributes, the clip and the buffers; the final image buffer is not touched. Runs on any
    /// thread that drops the last reference, a completion's too.
    virtual ~vdBRAW_Request();
    vdBRAW_Request(const vdBRAW_Request&) = delete;
    vdBRAW_Request& operator=(const vdBRAW_Request&) = delete;

    /// Called with the frame that was read. 1 ends the request there.
    virtual int onFrameRead(IBlackmagicRawFrame* frame);
    /// Records the failure, finishes the request and tells whoever listens. With `unlock` it releases
    /// m_mutex, which the caller then holds no more. Never fails itself: without memory the message is lost,
    /// not the code. 0 always. Called by the two names below.
    virtual int HandleError(uint32_t code, HRESULT hr, std::string_view message, bool unlock) noexcept;
    /// Called under the lock after a successful process job, or without it at submission for a request that
    /// is not enabled. A failure is what the request then ends with, and its caller ends it: a delivery
    /// neither finishes the request nor tells the listener.
    virtual vdStatus onProcessComplete();
    /// Puts the processed image into the final buffer.
    virtual vdStatus LaunchHeavyProcessing();
    /// Converts, flips, shrinks or copies the processed image into the final buffer, by m_pxlConvAlgo. What
    /// no conversion exists for leaves the buffer alone and is no failure.
    virtual vdStatus HeavyProcessing();
    /// For hosts that derive from this; nothing here calls it.
    virtual int hook() { return 0; }
    /// Called whenever the request ends by error or cancellation. Must not throw.
    virtual void onFinished() = 0;
    virtual bool isSameRequest(const vdBRAW_Request& other) const;

    /// Picks the decoder resolution for the asked size, and from it the final image's size. An asked size
    /// above the clip's full resolution is no failure: the clip is decoded in full and m_isOver says so.
    vdStatus setScaleAndDimensions(const vdBRAW_Clip& clip, const brScaleRequest& x, const brScaleRequest& y,
                                   const brRect& rect);
    /// Takes the buffers over and settles formats. `rowBytes` may be negative: rows then run towards lower
    /// addresses. Fails for a pixel format that no conversion exists for. Where the decoder's own layout is
    /// the final one, it will write into `finalBuffer` itself.
    vdStatus setup(uint64_t clipId, uint64_t frameCount, void* finalBuffer, int32_t rowBytes,
                   brPixelFormat pixelFormat, std::unique_ptr<brBufferManager> bufferManager);
    /// Clones the clip's processing attributes and applies the request's own settings to them. The request
    /// ends when that fails.
    void cloneProcessingAttributes(const vdBRAW_Clip& clip);

    /// HandleError where nobody holds m_mutex: before the request is submitted, or when it could not be.
    void failUnlocked(uint32_t code, HRESULT hr, std::string_view message) noexcept {
        HandleError(code, hr, message, false);
    }
    /// HandleError where the caller holds m_mutex, which it holds no more afterwards.
    void failAndUnlock(uint32_t code, HRESULT hr, std::string_view message) noexcept {
        HandleError(code, hr, message, true);
    }

    /// One block copy out of the processed image, from wherever it lives. `measure` logs its rate. False when
    /// the image's memory could not be read: `status` is then what the request is to end with, or unchanged
    /// when a log line is all there is to it.
    bool CopyMemoryCPUorGPU(void* destination, const void* source, size_t size, bool measure,
                            vdStatus& status) const;

    /// Calls m_listener when one is set; m_mutex must not be held.
    void notifyListener() noexcept;
    /// Gives up what an ended request's jobs used of its clip; nothing while one may still be running. Called
    /// without m_mutex, and never from a completion: the clip may close here.
    void giveBackClip() noexcept;

    brRequestIdentity identity() const { return {m_queueId, m_requestId, m_clipId, m_frameIndex}; }

    uint64_t m_tag = fourCharacterCode("requ");
    vdMutex m_mutex;
    bool m_isProcessing = false;                 ///< a job is in flight
    std::shared_ptr<vdBRAW_Request> m_keptByJob; ///< this, from a job's submission to its completion
    bool m_isSubmitted = false;
    bool m_readDone = false;
    bool m_processDone = false;
    bool m_isFinished = false; ///< ended, whichever way
    vdStopwatch m_jobTimer;
    uint32_t m_errorCode = brErrorNone;
    std::string m_errorMessage;
    bool m_isCancelled = false;
    std::function<void(vdBRAW_Request&)> m_listener; ///< called once, after the end, without the lock
    uint64_t m_queueId = brNoQueueId;
    bool m_isEnabled = true;
    uint64_t m_requestId;
    uint64_t m_clipId = brNoClipId;
    Microsoft::WRL::ComPtr<IBlackmagicRawClipEx> m_clipInUse; ///< by its jobs, whoever closes the clip
    uint64_t m_frameIndex = 0;
    uint64_t m_frameCount = 0;
    uint32_t m_pxlConvAlgo = 0;
    brPixelFormat m_pixelFormat = brPixelFormat::none;
    int32_t m_rowBytes = -1;
    uint32_t m_width = 0;  ///< of the final image, pixels
    uint32_t m_height = 0; ///< of the final image, pixels
    brRect m_renderRect;   ///< the part of the final image to fill
    BlackmagicRawResourceFormat m_resourceFormat = blackmagicRawResourceFormatRGBAU8;
    uint8_t m_resourceBytesPerPixel = 4;
    IBlackmagicRawProcessedImage* m_processedImage = nullptr; ///< the library's; valid in its callback only
    BlackmagicRawResolutionScale m_resolutionScale = blackmagicRawResolutionScaleFull;
    bool m_isOver = false; ///< asked for more than the clip's full resolution
    bool m_downscale = false;
    float m_downscaleX = 1.0f;
    float m_downscaleY = 1.0f;
    uint32_t m_processedWidth = 0;
    uint32_t m_processedHeight = 0;
    Microsoft::WRL::ComPtr<IBlackmagicRawClipProcessingAttributes> m_clipProcessingAttributes;
    bool m_hasCustomSettings = false;
    brClipProcessingSettings m_clipSettings;
    brFrameProcessingSettings m_frameSettings;
    std::unique_ptr<brBufferManager> m_bufferManager;

private:
    void takeResolution(const brResolution& resolution);
    vdStatus deriveFormats();
    bool canDeliverDirectly(const void* finalBuffer) const;
};
