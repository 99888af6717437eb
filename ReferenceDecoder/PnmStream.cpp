#include "PnmStream.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <utility>

namespace reference {

namespace {

constexpr uint64_t kHeaderLimit = 4096; ///< no sensible header is longer
constexpr uint32_t kSideLimit = 65535;
constexpr uint64_t kPictureBytesLimit = 0x7FFFFFFF;
constexpr HRESULT kBadFormat = static_cast<HRESULT>(0x8007000D); // HRESULT_FROM_WIN32(ERROR_INVALID_DATA)

HRESULT lastError() {
    const DWORD error = GetLastError();
    return error ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

class HeaderReader {
public:
    explicit HeaderReader(std::string_view bytes) : m_bytes(bytes) {}

    HeaderState read(PictureHeader& header) {
        if (!std::string_view("P6").starts_with(m_bytes.substr(0, 2)))
            return HeaderState::malformed;
        m_position = 2;
        if (!readNumber(header.width, kSideLimit) || !readNumber(header.height, kSideLimit) ||
            !readNumber(header.maximum, 65535))
            return failure();
        if (m_position >= m_bytes.size())
            return failure();
        if (!isSpace(m_bytes[m_position]) || header.pixelBytes() > kPictureBytesLimit)
            return HeaderState::malformed;
        header.headerBytes = static_cast<uint32_t>(m_position + 1);
        header.frameRate = m_frameRate;
        header.orientation = m_orientation;
        return HeaderState::complete;
    }

private:
    static bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

    HeaderState failure() const {
        const bool ended = m_position >= m_bytes.size() && m_bytes.size() < kHeaderLimit;
        return ended && !m_isMalformed ? HeaderState::truncated : HeaderState::malformed;
    }

    bool malformed() {
        m_isMalformed = true;
        return false;
    }

    /// Blanks, of which there must be one, and comments.
    bool skipSpace() {
        const size_t start = m_position;
        for (; m_position < m_bytes.size(); ++m_position) {
            if (m_bytes[m_position] == '#') {
                const size_t end = std::min(m_bytes.find_first_of("\r\n", m_position), m_bytes.size());
                if (!readComment(m_bytes.substr(m_position + 1, end - m_position - 1)))
                    return malformed();
                m_position = end;
                if (end == m_bytes.size())
                    return false;
            } else if (!isSpace(m_bytes[m_position]))
                return m_position > start || malformed();
        }
        return false;
    }

    bool readNumber(uint32_t& number, uint32_t limit) {
        if (!skipSpace())
            return false;
        const char* end = m_bytes.data() + m_bytes.size();
        const auto result = std::from_chars(m_bytes.data() + m_position, end, number);
        if (result.ec != std::errc() || number == 0 || number > limit)
            return malformed();
        m_position = static_cast<size_t>(result.ptr - m_bytes.data());
        return true;
    }

    /// A comment that is about nothing known says nothing.
    bool readComment(std::string_view text) {
        text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
        if (text.starts_with("fps "))
            return readValue(text, m_frameRate) && std::isfinite(m_frameRate) && m_frameRate > 0;
        if (text.starts_with("orientation "))
            return readValue(text, m_orientation) && m_orientation >= 1 && m_orientation <= 8;
        return true;
    }
    /// What follows a comment's first word.
    template <class Number>
    static bool readValue(std::string_view text, Number& number) {
        text.remove_prefix(text.find(' '));
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc();
    }

    std::string_view m_bytes;
    size_t m_position = 0;
    float m_frameRate = 0;
    uint32_t m_orientation = 1;
    bool m_isMalformed = false;
};

/// A path that Windows takes at any length.
std::wstring longPath(const wchar_t* path) {
    const std::wstring_view given(path);
    if (given.size() < MAX_PATH - 12 || given.starts_with(L"\\\\?\\"))
        return path;
    std::wstring full(GetFullPathNameW(path, 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path, static_cast<DWORD>(full.size()), full.data(), nullptr));
    return full.starts_with(L"\\\\") ? L"\\\\?\\UNC\\" + full.substr(2) : L"\\\\?\\" + full;
}

} // namespace

HeaderState parsePictureHeader(std::string_view bytes, PictureHeader& header) {
    return HeaderReader(bytes).read(header);
}

HRESULT PnmStream::open(const wchar_t* path, std::shared_ptr<PnmStream>& stream) {
    auto opened = std::make_shared<PnmStream>();
    const HANDLE file = CreateFileW(longPath(path).c_str(), GENERIC_READ,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return lastError();
    opened->m_file.reset(file);
    LARGE_INTEGER bytes;
    if (GetFileType(file) != FILE_TYPE_DISK)
        return HRESULT_FROM_WIN32(ERROR_BAD_FILE_TYPE);
    if (!GetFileSizeEx(file, &bytes))
        return lastError();
    opened->m_fileBytes = static_cast<uint64_t>(bytes.QuadPart);
    const HRESULT result = opened->readFrames();
    if (SUCCEEDED(result))
        stream = std::move(opened);
    return result;
}

HRESULT PnmStream::readFrames() {
    if (headerAt(0, m_first) != HeaderState::complete)
        return kBadFormat;
    const uint64_t firstEnd = m_first.headerBytes + m_first.pixelBytes();
    m_laterFrameBytes = firstEnd;
    if (m_fileBytes <= firstEnd) {
        m_frameCount = m_fileBytes > m_first.headerBytes ? 1 : 0;
        return S_OK;
    }
    return findRegularFrames(firstEnd) ? S_OK : walkFrames(firstEnd);
}

/// Where all frames after the first have as many bytes as the second, a look at the second, the last whole
/// one and what is cut short behind it is enough, however many there are.
bool PnmStream::findRegularFrames(uint64_t start) {
    PictureHeader second;
    if (headerAt(start, second) != HeaderState::complete || !second.isSamePicture(m_first))
        return false;
    m_laterFrameBytes = second.headerBytes + second.pixelBytes();
    const uint64_t whole = (m_fileBytes - start) / m_laterFrameBytes;
    const uint64_t cut = start + whole * m_laterFrameBytes;
    if (whole > 0 && !isLikeFirst(cut - m_laterFrameBytes, second.headerBytes))
        return false;
    if (cut < m_fileBytes && !isLikeFirst(cut, second.headerBytes))
        return false;
    m_frameCount = 1 + whole + (cut < m_fileBytes ? 1 : 0);
    return true;
}

HRESULT PnmStream::walkFrames(uint64_t start) {
    m_locations.push_back({0, start});
    for (uint64_t offset = start; offset < m_fileBytes;) {
        PictureHeader header;
        const HeaderState state = headerAt(offset, header);
        if (state == HeaderState::truncated) { // a frame cut short in its header
            m_locations.push_back({offset, m_laterFrameBytes});
            break;
        }
        if (state == HeaderState::malformed || !header.isSamePicture(m_first))
            return kBadFormat;
        m_locations.push_back({offset, header.headerBytes + header.pixelBytes()});
        offset += m_locations.back().bytes;
    }
    m_frameCount = m_locations.size();
    return S_OK;
}

HeaderState PnmStream::headerAt(uint64_t offset, PictureHeader& header) const {
    std::array<char, kHeaderLimit> bytes;
    const uint64_t count = read(offset, bytes.data(), bytes.size());
    return parsePictureHeader({bytes.data(), static_cast<size_t>(count)}, header);
}

bool PnmStream::isLikeFirst(uint64_t offset, uint32_t headerBytes) const {
    PictureHeader header;
    const HeaderState state = headerAt(offset, header);
    return state == HeaderState::truncated ||
           (state == HeaderState::complete && header.isSamePicture(m_first) &&
            header.headerBytes == headerBytes);
}

PnmStream::Location PnmStream::locate(uint64_t frame) const {
    if (!m_locations.empty())
        return m_locations[static_cast<size_t>(frame)];
    const uint64_t firstBytes = m_first.headerBytes + m_first.pixelBytes();
    return frame == 0 ? Location{0, firstBytes}
                      : Location{firstBytes + (frame - 1) * m_laterFrameBytes, m_laterFrameBytes};
}

HRESULT PnmStream::frameBytes(uint64_t frame, uint32_t& bytes) const {
    if (frame >= m_frameCount)
        return E_INVALIDARG;
    const Location location = locate(frame);
    if (location.offset + location.bytes > m_fileBytes)
        return E_FAIL;
    bytes = static_cast<uint32_t>(location.bytes);
    return S_OK;
}

HRESULT PnmStream::readFrame(uint64_t frame, void* buffer, PictureHeader& header) const {
    const Location location = locate(frame);
    if (read(location.offset, buffer, location.bytes) != location.bytes)
        return E_FAIL;
    const std::string_view start(static_cast<const char*>(buffer),
                                 static_cast<size_t>(std::min(location.bytes, kHeaderLimit)));
    const bool isGood = parsePictureHeader(start, header) == HeaderState::complete &&
                        header.isSamePicture(m_first) &&
                        header.headerBytes + header.pixelBytes() == location.bytes;
    return isGood ? S_OK : kBadFormat;
}

/// As many of the bytes as there are. Each read names its own place: threads share the handle.
uint64_t PnmStream::read(uint64_t offset, void* buffer, uint64_t bytes) const {
    constexpr uint64_t step = 64u << 20;
    uint64_t done = 0;
    while (done < bytes) {
        OVERLAPPED place{};
        place.Offset = static_cast<DWORD>(offset + done);
        place.OffsetHigh = static_cast<DWORD>((offset + done) >> 32);
        DWORD count = 0;
        if (!ReadFile(m_file.get(), static_cast<char*>(buffer) + done,
                      static_cast<DWORD>(std::min(step, bytes - done)), &count, &place) ||
            count == 0)
            break;
        done += count;
    }
    return done;
}

} // namespace reference
