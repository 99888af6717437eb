#include "Scenario.h"

#include <algorithm>
#include <cstring>

#include "GdiObjects.h"
#include "GuardedBitmaps.h"
#include "Manager.h"
#include "ReferenceDecoder.h"
#include "Utils/vdGuard.h"
#include "Utils/vdText.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t page = 4096;
constexpr wchar_t decoderFile[] = L"BlackmagicRawAPI.dll";

size_t wholePages(size_t bytes) {
    return (bytes + page - 1) / page * page;
}

std::string codeText(HRESULT code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(code));
    return text;
}

/// The library goes with its last thread, which may be a moment behind the call that gave it up.
bool isDecoderGone() {
    for (int i = 0; i < 200; ++i) {
        if (GetModuleHandleW(decoderFile) == nullptr)
            return true;
        Sleep(5);
    }
    return false;
}

} // namespace

fs::path builtFile(const char* folder, const wchar_t* name) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    return fs::path(program).parent_path().parent_path() / folder / name;
}

bool isFree(const std::wstring& path) {
    const HANDLE file =
        CreateFileW(path.c_str(), GENERIC_READ | DELETE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    CloseHandle(file);
    return true;
}

std::vector<uint8_t> expectedPicture(const TestClip& clip, uint32_t factor) {
    std::vector<uint8_t> pixels;
    for (uint32_t y = 0; y < expectedSide(clip.height, factor); ++y)
        for (uint32_t x = 0; x < expectedSide(clip.width, factor); ++x) {
            const auto pixel = expectedPixel(clip, factor, x, y);
            pixels.insert(pixels.end(), pixel.begin(), pixel.end());
        }
    return pixels;
}

std::vector<uint8_t> picturePixels(HBITMAP bitmap) {
    DIBSECTION section{};
    if (!isThumbnailBitmap(bitmap, section))
        return {};
    const size_t row = static_cast<size_t>(section.dsBmih.biWidth) * 4;
    const auto rows = static_cast<size_t>(section.dsBmih.biHeight);
    const auto* const bits = static_cast<const uint8_t*>(section.dsBm.bmBits);
    std::vector<uint8_t> pixels(row * rows);
    for (size_t y = 0; y < rows; ++y)
        std::memcpy(pixels.data() + y * row, bits + (rows - 1 - y) * row, row);
    return pixels;
}

GuardedMemory::GuardedMemory(size_t bytes)
    : m_pages(VirtualAlloc(nullptr, wholePages(bytes) + page, MEM_RESERVE, PAGE_READWRITE)), m_bytes(bytes) {
    if (m_pages != nullptr &&
        VirtualAlloc(m_pages, wholePages(bytes), MEM_COMMIT, PAGE_READWRITE) == nullptr) {
        VirtualFree(m_pages, 0, MEM_RELEASE);
        m_pages = nullptr;
    }
    m_start = static_cast<uint8_t*>(m_pages) + (wholePages(bytes) - bytes);
}

GuardedMemory::~GuardedMemory() {
    if (m_pages != nullptr)
        VirtualFree(m_pages, 0, MEM_RELEASE);
}

HRESULT ScenarioOutcome::result() const {
    for (const ScenarioPicture& picture : pictures)
        if (picture.result != S_OK)
            return picture.result;
    return S_OK;
}

Scenario::Scenario(std::string name) : m_name(std::move(name)) {}

ScenarioOutcome Scenario::run(const std::vector<ReferenceDecoderFault>& faults,
                              uint32_t jobDelayMilliseconds) {
    m_decoder.reset();
    m_decoder.setGuardResources(true);
    m_decoder.setJobDelay(jobDelayMilliseconds);
    prepareDecoder();
    for (const ReferenceDecoderFault& fault : faults)
        m_decoder.arm(fault);
    m_gdiObjects = countGdiObjects();
    ScenarioOutcome outcome;
    work(outcome);
    m_decoder.disarm();
    return outcome;
}

std::string Scenario::troubleAfter(const ScenarioOutcome& outcome, Expected expected) {
    if (!outcome.trouble.empty())
        return outcome.trouble;
    const ReferenceDecoderAccount account = m_decoder.account();
    const bool isOrderly =
        expected == Expected::picture ? account.isClean() : account.isBalanced() && account.isSound();
    if (!isOrderly)
        return account.describe();
    if (!isDecoderGone())
        return "the decoder library is still loaded";
    if (const uint32_t now = countGdiObjects(); now != m_gdiObjects)
        return "GDI objects were " + std::to_string(m_gdiObjects) + " and are " + std::to_string(now);
    if (!isFree(m_clipPath.wstring()))
        return "the clip is still open";
    for (size_t i = 0; i < outcome.pictures.size(); ++i) {
        const ScenarioPicture& picture = outcome.pictures[i];
        if (picture.result != S_OK) {
            if (SUCCEEDED(picture.result))
                return "a success that is not S_OK: " + codeText(picture.result);
            if (expected == Expected::picture)
                return "no picture " + std::to_string(i) + ": " + codeText(picture.result);
            if (!picture.pixels.empty())
                return "a picture was handed out with the failure " + codeText(picture.result);
        } else if (picture.pixels.empty())
            return "S_OK without a picture";
        else if (expected != Expected::anythingBounded && i < m_expected.size() &&
                 picture.pixels != m_expected[i])
            return "S_OK with a wrong picture " + std::to_string(i);
    }
    return {};
}

void Scenario::forgetRefusedResources(int64_t count) {
    isDecoderGone();
    auto& account = referenceDecoderControl().account;
    if (account.liveResources != count)
        return;
    account.liveResources = 0;
    account.liveResourceBytes = 0;
    account.unbalancedUnloads = 0;
}

std::string Scenario::troubleInGoodRun() {
    const ScenarioOutcome outcome = run();
    if (m_expected.empty() && outcome.result() == S_OK)
        for (const ScenarioPicture& picture : outcome.pictures)
            m_expected.push_back(picture.pixels);
    return troubleAfter(outcome, Expected::picture);
}

namespace {

class ThumbnailScenario final : public Scenario {
public:
    explicit ThumbnailScenario(const ThumbnailScenarioSettings& settings)
        : Scenario("thumbnail " + std::to_string(settings.size)), m_settings(settings) {
        TestClip clip{320, 180};
        m_clipPath = m_folder.path() / "clip.braw";
        writeTestClip(m_clipPath, clip);
        if (settings.size > 45 && settings.size <= 90)
            m_expected = {expectedPicture(clip, 2)};
    }

private:
    void load() {
        const std::wstring path = fs::path(m_settings.handler).make_preferred().wstring();
        if (m_isLoaded)
            return;
        m_isLoaded = m_library.load(path) == S_OK;
        if (!m_isLoaded)
            return;
        guardBitmapsOf(GetModuleHandleW(path.c_str()));
        if (m_settings.onLoad)
            m_settings.onLoad(GetModuleHandleW(path.c_str()));
    }

    void work(ScenarioOutcome& outcome) override {
        ScenarioPicture picture;
        start();
        load();
        ThumbnailAnswer answer = askForThumbnail(m_clipPath.wstring(), m_settings.size, &m_library);
        end();
        picture.result = answer.result;
        if (answer.bitmap.get() != nullptr)
            picture.pixels = picturePixels(answer.bitmap.get());
        if (answer.bitmap.get() != nullptr && picture.pixels.empty())
            outcome.trouble = "the bitmap is no bottom-up DIB section";
        answer.bitmap = {};
        outcome.pictures.push_back(std::move(picture));
        const HMODULE module = GetModuleHandleW(fs::path(m_settings.handler).make_preferred().c_str());
        const auto canUnload = reinterpret_cast<HRESULT(WINAPI*)()>(
            reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")));
        if (canUnload == nullptr || canUnload() != S_OK)
            outcome.trouble = "an object of the handler was not released";
        else if (m_settings.unloadEachRun) {
            m_isLoaded = m_library.unload() != S_OK;
            if (m_isLoaded ||
                GetModuleHandleW(fs::path(m_settings.handler).make_preferred().c_str()) != nullptr)
                outcome.trouble = "the handler cannot be unloaded";
        }
    }

    ThumbnailScenarioSettings m_settings;
    HandlerLibrary m_library;
    bool m_isLoaded = false;
};

class CoreRequest final : public vdBRAW_Request {
public:
    int onProcessComplete() override { return LaunchHeavyProcessing(); }
    void onFinished() override {}
    GuardedMemory m_memory;
};

class CoreScenario : public Scenario {
protected:
    CoreScenario(const char* name, bool useGpu) : Scenario(name), m_useGpu(useGpu) {
        m_clipPath = m_folder.path() / "clip.braw";
        writeTestClip(m_clipPath, clip);
        m_clipText = m_folder.text("clip.braw");
        m_libraryFolder = builtFile("bin", L"").make_preferred().wstring();
    }

    virtual void prepareRequest(vdBRAW_Request&) const {}

    static inline TestClip clip{64, 48};
    static constexpr brPixelFormat formats[] = {brPixelFormat::BGRA_8_LOW, brPixelFormat::BGRA_16_LOW};

private:
    void work(ScenarioOutcome& outcome) override {
        outcome.pictures.resize(std::size(formats));
        GuardedMemory memory[std::size(formats)];
        start();
        const HRESULT hr = guardBoundary([&] { return useManager(outcome, memory); });
        delete std::exchange(g_manager, nullptr);
        end();
        for (size_t i = 0; i < std::size(formats); ++i) {
            ScenarioPicture& picture = outcome.pictures[i];
            if (FAILED(hr) && picture.result != S_OK)
                picture.result = hr;
            if (picture.result == S_OK)
                picture.pixels.assign(memory[i].data(), memory[i].data() + memory[i].size());
        }
    }

    HRESULT useManager(ScenarioOutcome& outcome, GuardedMemory* memory) {
        g_manager = new vdBRAW_Manager;
        auto instance = std::make_unique<Instance>();
        instance->factory = createReferenceDecoderFactory();
        instance->isInitialised = instance->factory != nullptr;
        instance->libraryFolder = vdBstr(m_libraryFolder);
        instance->useGpuPipeline = m_useGpu;
        if (g_manager->init(std::move(instance)) != 0)
            return E_UNEXPECTED;
        uint64_t id = 0;
        if (g_manager->AddClipIfNew(m_clipText, id) != 0)
            return E_FAIL;
        const std::shared_ptr<vdBRAW_Clip> opened = g_manager->GetClip(id);
        for (size_t i = 0; i < std::size(formats); ++i)
            outcome.pictures[i].result = render(*opened, formats[i], memory[i]);
        g_manager->CloseClip(opened);
        return S_OK;
    }

    HRESULT render(const vdBRAW_Clip& opened, brPixelFormat format, GuardedMemory& memory) {
        const auto width = static_cast<int32_t>(clip.width), height = static_cast<int32_t>(clip.height);
        const auto request = std::make_shared<CoreRequest>();
        prepareRequest(*request);
        if (request
                ->setScaleAndDimensions(opened, {0, static_cast<int32_t>(opened.m_width), clip.width},
                                        {0, static_cast<int32_t>(opened.m_height), clip.height},
                                        {0, 0, width, height})
                .failed)
            return E_FAIL;
        constexpr uint64_t mostPixels = 1u << 24; // a host would not believe more either
        if (uint64_t{request->m_width} * request->m_height > mostPixels)
            return E_OUTOFMEMORY;
        const uint32_t rowBytes = request->m_width * pixelFormatBytes(format);
        request->m_memory = GuardedMemory(size_t{rowBytes} * request->m_height);
        if (request
                ->setup(opened.m_id, opened.m_frameCount, request->m_memory.data(),
                        static_cast<int32_t>(rowBytes), format, g_manager->createBufferManager())
                .failed)
            return E_FAIL;
        request->cloneProcessingAttributes(opened);
        if (g_manager->ProcessFrameSync(request) != 0 || !request->m_isFinished ||
            request->m_errorCode != brErrorNone)
            return E_FAIL;
        memory = std::move(request->m_memory);
        return S_OK;
    }

    bool m_useGpu;
    std::string m_clipText;
    std::wstring m_libraryFolder;
};

class GpuScenario final : public CoreScenario {
public:
    GpuScenario() : CoreScenario("gpu", true) {
        // Loaded by its full path first, the stand-in is what the core finds by its name.
        LoadLibraryW(builtFile("cuda", L"cudart64_110.dll").make_preferred().c_str());
    }
};

class SettingsScenario final : public CoreScenario {
public:
    SettingsScenario() : CoreScenario("settings", false) {}

private:
    void prepareDecoder() override { m_decoder.setClipsHaveLut(true); }
    void prepareRequest(vdBRAW_Request& request) const override {
        request.m_hasCustomSettings = true;
        std::strncpy(request.m_clipSettings.gamma, brCustomGamma, sizeof request.m_clipSettings.gamma);
        std::strncpy(request.m_clipSettings.lutMode, "Embedded", sizeof request.m_clipSettings.lutMode);
        request.m_frameSettings.exposure = 1.0f;
    }
};

} // namespace

std::unique_ptr<Scenario> makeThumbnailScenario(const ThumbnailScenarioSettings& settings) {
    return std::make_unique<ThumbnailScenario>(settings);
}
std::unique_ptr<Scenario> makeGpuScenario() {
    return std::make_unique<GpuScenario>();
}
std::unique_ptr<Scenario> makeSettingsScenario() {
    return std::make_unique<SettingsScenario>();
}
