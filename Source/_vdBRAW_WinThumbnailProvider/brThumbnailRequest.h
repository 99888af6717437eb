// The frame request of one thumbnail: a clip's first frame, decoded into a Windows bitmap.
#pragma once

#include <cstdint>

#include <windows.h>

#include "Request.h"

/// An asked picture size, in pixels.
struct brDimensions {
    uint32_t width = 0;
    uint32_t height = 0;
};

/// Set up on the shell's thread, delivered on a decoder thread. The bitmap is the request's until somebody
/// takes it out of m_hBitmap; it lives as long as the request otherwise, and so as long as any job can write
/// into it.
class vdBRAW_Request_Thumbnail final : public vdBRAW_Request {
public:
    vdBRAW_Request_Thumbnail() = default;
    ~vdBRAW_Request_Thumbnail() override;

    vdStatus onProcessComplete() override;
    /// Sees to it that the processed image is in the bitmap. On a CPU the decoder itself has written it.
    vdStatus LaunchHeavyProcessing() override;
    vdStatus HeavyProcessing() override { return {}; }
    void onFinished() override {}

    /// Picks the resolution, makes the bitmap and sets the request up for frame 0. A failure leaves nothing
    /// set up: the request must not be submitted. A bitmap that cannot be made is an error of the request
    /// instead. Needs an initialised manager in g_manager.
    vdStatus initThumbnail(const vdBRAW_Clip& clip, const brDimensions& dimensions);

    HBITMAP m_hBitmap = nullptr; ///< bottom-up, 32 bits: blue, green, red, alpha

private:
    void* createBitmap();
    vdStatus turnBitmap();
    vdStatus fetchImage(void*& host, uint64_t hostBytes) const;
    vdStatus copyFromProcessedBuffer();
    vdStatus placeInBitmap();

    HBITMAP m_unturnedBitmap = nullptr; ///< what m_hBitmap replaced: the decoder may still know its pixels
};
