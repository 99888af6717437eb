#include "brThumbnailGenerator.h"

#include <memory>
#include <utility>

#include "Manager.h"
#include "ThumbnailProgress.h"
#include "Utils/vdGuard.h"
#include "Utils/vdLogging.h"
#include "brThumbnailRequest.h"

namespace {
/// Closes the clip, whichever way its thumbnail ends.
class ClipCloser {
public:
    explicit ClipCloser(const std::shared_ptr<vdBRAW_Clip>& clip) : m_clip(clip) {}
    ~ClipCloser() {
        guardBoundary([this] { return g_manager->CloseClip(m_clip); });
    }
    ClipCloser(const ClipCloser&) = delete;
    ClipCloser& operator=(const ClipCloser&) = delete;

private:
    const std::shared_ptr<vdBRAW_Clip>& m_clip;
};

/// Runs the request to its end. A request that could not be set up is not submitted, and one that has not
/// ended when the library says it has finished keeps its bitmap: a job may still be writing into it.
bool render(const std::shared_ptr<vdBRAW_Request_Thumbnail>& request, const vdBRAW_Clip& clip,
            uint32_t size) {
    if (request->initThumbnail(clip, {size, size}).failed)
        return false;
    const bool submitted = g_manager->ProcessFrameSync(request) == 0;
    const vdLock lock(request->m_mutex, "request->m_mutex");
    g_progress.requestError = request->m_errorCode;
    if (!submitted)
        return false;
    const bool ended = request->m_isFinished || !request->m_isEnabled;
    return ended && request->m_errorCode == brErrorNone && request->m_hBitmap != nullptr;
}
} // namespace

HRESULT initBMIfNeeded() {
    if (g_manager != nullptr) {
        VD_LOG_INFO("BMD Lib already initialized");
        return S_OK;
    }
    VD_LOG_INFO("Initializing BMD Lib");
    g_progress = {L"loading the decoder library"};
    auto instance = std::make_unique<Instance>();
    if (initBM(*instance) != 0)
        return E_UNEXPECTED;

    g_progress.stage = L"starting the decoder";
    g_manager =
        new vdBRAW_Manager; // at once, since the core reaches it through the pointer; releaseBMD's from here
    const int result = g_manager->init(std::move(instance));

    // Frames are to arrive bottom row first, as a bottom-up bitmap stores them.
    g_manager->m_useMetadataGeometry = true;
    g_manager->m_flipVertical = true;
    return result == 0 ? S_OK : E_UNEXPECTED;
}

HRESULT releaseBMD() noexcept {
    VD_LOG_INFO("Releasing Global Manager");
    delete g_manager;
    g_manager = nullptr;
    return S_OK;
}

HRESULT generateThumbnailImageBuffer(const std::string& filepath, uint32_t size, HBITMAP& bitmap) {
    bitmap = nullptr;
    uint64_t clipId = 0;
    g_progress.stage = L"opening the clip";
    // The registry says 1 for "refused", which would be a success to the shell.
    if (const int added = g_manager->AddClipIfNew(filepath, clipId); added != 0)
        return FAILED(added) ? static_cast<HRESULT>(added) : E_FAIL;

    const std::shared_ptr<vdBRAW_Clip> clip = g_manager->GetClip(clipId);
    if (clip == nullptr)
        return E_UNEXPECTED;
    g_progress.stage = L"decoding the first frame";
    const auto request = std::make_shared<vdBRAW_Request_Thumbnail>();
    const ClipCloser closer(clip); // the clip is closed before the request goes
    if (!render(request, *clip, size)) {
        VD_LOG_ERROR("Something went wrong !! Returning Error");
        return E_FAIL;
    }
    VD_LOG_INFO("Success : Filling final buffer pointer result");
    bitmap = std::exchange(request->m_hBitmap, nullptr);
    return S_OK;
}
