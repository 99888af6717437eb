// A clip file opened through the decoder library.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <wrl/client.h>

#include "BlackmagicRawAPI.h"
#include "Utils/vdBstr.h"
#include "Utils/vdMutex.h"
#include "Utils/vdStatus.h"

/// A picture size that the decoder can deliver, in pixels, and the scale code that yields it.
struct brResolution {
    uint32_t width = 0;
    uint32_t height = 0;
    BlackmagicRawResolutionScale scale = 0;
};

/// Held by shared ownership. The four operations take the clip's own lock; the facts (size, frame rate, frame
/// count, resolutions) are written by openAndInit, survive Close, and are read without the lock afterwards.
class vdBRAW_Clip {
public:
    /// `filePath` is UTF-8. Nothing is opened yet.
    vdBRAW_Clip(uint64_t id, std::string filePath);
    ~vdBRAW_Clip();
    vdBRAW_Clip(const vdBRAW_Clip&) = delete;
    vdBRAW_Clip& operator=(const vdBRAW_Clip&) = delete;

    /// Opens the clip and reads its facts. `geometry` may be null; the clip keeps a reference to it. After a
    /// failure the clip holds no library objects.
    vdStatus openAndInit(IBlackmagicRaw* codec, IBlackmagicRawClipGeometry* geometry);
    /// True when the clip must be reopened before use.
    bool doesNeedToBeReloaded();
    /// Opens the clip again, with the geometry it had; the facts stay as they were.
    vdStatus reload(IBlackmagicRaw* codec);
    /// Releases the library's objects, and the attachment unless it is to be kept for a reload. 0 always.
    int32_t Close(bool keepAttachment);

    uint32_t m_tag = fourCharacterCode("clip");
    uint64_t m_id;
    std::string m_filePath;
    vdBstr m_filePathBstr;               ///< null when the path is empty or not whole UTF-8
    std::atomic<bool> m_isOpened{false}; ///< read without the lock
    float m_frameRate = -1.0f;
    uint32_t m_width = 0;
    uint32_t m_height = 0;
    uint64_t m_frameCount = 0;
    std::vector<brResolution> m_resolutions;
    std::shared_ptr<void> m_attachment;                           ///< a host's own object
    std::vector<std::pair<std::string, std::string>> m_textPairs; ///< a host's own texts
    Microsoft::WRL::ComPtr<IBlackmagicRawClip> m_bmClip;
    Microsoft::WRL::ComPtr<IBlackmagicRawClipEx> m_bmClipEx;
    Microsoft::WRL::ComPtr<IBlackmagicRawClipGeometry> m_bmGeometry;
    mutable vdMutex m_bmClipMutex;

private:
    vdStatus open(IBlackmagicRaw* codec, IBlackmagicRawClipGeometry* geometry);
    vdStatus readFacts();
    vdStatus readResolutions(bool sizeKnown);
    static vdStatus readResolution(IBlackmagicRawClipResolutions& resolutions, uint32_t index,
                                   brResolution& entry);
    vdStatus queryClipEx();
    void releaseLibraryObjects();
};
