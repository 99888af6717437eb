// A clip file: netpbm P6 pictures of one size and depth, one after the other, each being a frame.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>

namespace reference {

struct PictureHeader {
    uint32_t width = 0, height = 0;
    uint32_t maximum = 0;     ///< the sample value of full brightness, 1 to 65535
    uint32_t headerBytes = 0; ///< the first sample's distance from the header's start
    float frameRate = 0;      ///< from a comment `# fps 23.976`; 0 without one
    uint32_t orientation = 1; ///< from a comment `# orientation 6`, as EXIF numbers them: 1 is upright

    uint32_t bytesPerSample() const { return maximum > 255 ? 2 : 1; }
    uint64_t pixelBytes() const { return uint64_t{width} * height * 3 * bytesPerSample(); }
    bool isSamePicture(const PictureHeader& other) const {
        return width == other.width && height == other.height && maximum == other.maximum;
    }
};

enum class HeaderState { complete, truncated, malformed };

/// Reads the header that `bytes` begin with. Sizes beyond 65535 pixels or 2^31-1 bytes are malformed.
HeaderState parsePictureHeader(std::string_view bytes, PictureHeader& header);

/// An opened clip file; immutable once open, so that any thread may read. The file may be renamed or deleted
/// meanwhile.
class PnmStream {
public:
    static HRESULT open(const wchar_t* path, std::shared_ptr<PnmStream>& stream);

    const PictureHeader& picture() const { return m_first; }
    float frameRate() const { return m_first.frameRate > 0 ? m_first.frameRate : 24.0f; }
    uint64_t frameCount() const { return m_frameCount; }

    /// Header and samples of a frame. E_INVALIDARG beyond the last frame, E_FAIL for one that is cut short.
    HRESULT frameBytes(uint64_t frame, uint32_t& bytes) const;
    /// Reads them, and sees that the frame's own header is like the first.
    HRESULT readFrame(uint64_t frame, void* buffer, PictureHeader& header) const;

private:
    struct FileCloser {
        using pointer = HANDLE;
        void operator()(HANDLE file) const { CloseHandle(file); }
    };
    struct Location {
        uint64_t offset = 0;
        uint64_t bytes = 0; ///< as it should have
    };

    HRESULT readFrames();
    bool findRegularFrames(uint64_t start);
    HRESULT walkFrames(uint64_t start);
    HeaderState headerAt(uint64_t offset, PictureHeader& header) const;
    bool isLikeFirst(uint64_t offset, uint32_t headerBytes) const;
    Location locate(uint64_t frame) const;
    uint64_t read(uint64_t offset, void* buffer, uint64_t bytes) const;

    std::unique_ptr<HANDLE, FileCloser> m_file;
    uint64_t m_fileBytes = 0;
    PictureHeader m_first;
    uint64_t m_frameCount = 0;
    uint64_t m_laterFrameBytes = 0;    ///< of each frame after the first, where they are all alike
    std::vector<Location> m_locations; ///< of every frame, where they aren't
};

} // namespace reference
