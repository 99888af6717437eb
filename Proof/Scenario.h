// The roads that the proof sends trouble down: a thumbnail through the handler library, and two on which the
// decode core works in this process. One interface for all: run it, then look what it left.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

#include "HandlerHost.h"
#include "ReferenceDecoderSession.h"
#include "TemporaryFolder.h"
#include "TestClips.h"

/// A file of this build: `folder` as it is called in the build folder.
std::filesystem::path builtFile(const char* folder, const wchar_t* name);

/// Nobody has the file open: it could be deleted now.
bool isFree(const std::wstring& path);

/// Blue, green, red and alpha of all pixels, top row first: the clip's frame decoded at 1/factor.
std::vector<uint8_t> expectedPicture(const TestClip& clip, uint32_t factor);

/// The pixels of a thumbnail in the same order; empty when it is no 32-bit bottom-up DIB section.
std::vector<uint8_t> picturePixels(HBITMAP bitmap);

/// Memory whose end is the end of the accessible: one byte too far stops the run.
class GuardedMemory {
public:
    GuardedMemory() = default;
    /// All zero. Null when there is no such memory.
    explicit GuardedMemory(size_t bytes);
    GuardedMemory(GuardedMemory&& other) noexcept
        : m_pages(std::exchange(other.m_pages, nullptr)), m_start(other.m_start), m_bytes(other.m_bytes) {}
    GuardedMemory& operator=(GuardedMemory&& other) noexcept {
        std::swap(m_pages, other.m_pages);
        m_start = other.m_start;
        m_bytes = other.m_bytes;
        return *this;
    }
    ~GuardedMemory();
    uint8_t* data() const { return m_pages ? m_start : nullptr; }
    size_t size() const { return m_pages ? m_bytes : 0; }

private:
    void* m_pages = nullptr;
    uint8_t* m_start = nullptr;
    size_t m_bytes = 0;
};

/// One of the pictures that a run shall give.
struct ScenarioPicture {
    HRESULT result = E_FAIL;
    std::vector<uint8_t> pixels; ///< as the scenario's pictures are stored; empty unless the result is S_OK
};

struct ScenarioOutcome {
    std::vector<ScenarioPicture> pictures;
    std::string trouble; ///< a breach that only the run itself could see
    /// The first failure among the pictures, else S_OK.
    HRESULT result() const;
};

/// What a run is to give.
enum class Expected {
    picture,         ///< S_OK and the right picture
    rightIfAny,      ///< a failure, or the right picture
    anythingBounded, ///< a failure, or a picture: the decoder lied about what it shows
};

class Scenario {
public:
    virtual ~Scenario() = default;
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    const std::string& name() const { return m_name; }
    ReferenceDecoderSession& decoder() { return m_decoder; }

    /// One run against a decoder that shows these faults and whose jobs each take so long. The session is
    /// reset before, so account and recording are this run's alone.
    ScenarioOutcome run(const std::vector<ReferenceDecoderFault>& faults = {},
                        uint32_t jobDelayMilliseconds = 0);

    /// What is not as it must be after that run; empty when all is well.
    std::string troubleAfter(const ScenarioOutcome& outcome, Expected expected);
    /// To be called first after a run in which the decoder refused to take `count` resources back: they, and
    /// no others, are still out, and are forgotten.
    void forgetRefusedResources(int64_t count);
    /// A run with nothing in its way must give the right picture and leave nothing.
    std::string troubleInGoodRun();

    /// Called right before and right after the product's own work of a run.
    std::function<void()> onStart, onEnd;

protected:
    explicit Scenario(std::string name);
    virtual void work(ScenarioOutcome& outcome) = 0;
    virtual void prepareDecoder() {}

    void start() const {
        if (onStart)
            onStart();
    }
    void end() const {
        if (onEnd)
            onEnd();
    }

    std::string m_name;
    TemporaryFolder m_folder;
    ReferenceDecoderSession m_decoder;
    std::filesystem::path m_clipPath;
    std::vector<std::vector<uint8_t>>
        m_expected; ///< pictures of a good run; learnt from the first when empty

private:
    uint32_t m_gdiObjects = 0;
};

struct ThumbnailScenarioSettings {
    std::filesystem::path handler = builtFile("bin", L"Clipforge_Thumbnails.dll");
    UINT size = 64;
    bool unloadEachRun = false;
    std::function<void(HMODULE)> onLoad = {}; ///< called each time that the library was loaded
};
/// The handler library by COM's rules. A size above 180 asks for more than the clip has.
std::unique_ptr<Scenario> makeThumbnailScenario(const ThumbnailScenarioSettings& settings = {});
/// The decode core with a GPU pipeline, into memory of a host's: a plain and a converted picture.
std::unique_ptr<Scenario> makeGpuScenario();
/// The decode core on the CPU with custom settings throughout, on clips with a LUT; two pictures again.
std::unique_ptr<Scenario> makeSettingsScenario();
