// The road without the handler: the decode core in this process, on a decoder that is linked in.
#include <cstring>

#include "GuardedBitmaps.h"
#include "Manager.h"
#include "ReferenceDecoder.h"
#include "Scenario.h"
#include "Utils/vdGuard.h"
#include "Utils/vdText.h"

namespace {

/// An image whose end is the end of the accessible, as the picture of a guarded bitmap.
struct GuardedImage {
    OwnedBitmap bitmap;
    void* bits = nullptr;
    size_t bytes = 0;

    /// A multiple of four bytes; `bits` is null when there is no such memory.
    void allocate(size_t size) {
        const BITMAPINFO info{{sizeof(BITMAPINFOHEADER), static_cast<LONG>(size / 4), 1, 1, 32}, {}};
        bytes = size;
        *bitmap.put() = createGuardedDIBSection(nullptr, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    }
};

class CoreRequest final : public vdBRAW_Request {
public:
    vdStatus onProcessComplete() override { return LaunchHeavyProcessing(); }
    void onFinished() override {}
    GuardedImage m_image;
};

class CoreScenario final : public Scenario {
public:
    CoreScenario() : Scenario("core", clip) {
        // Loaded by its full path first, the stand-in is what the core finds by its name.
        LoadLibraryW(builtFile("cuda", L"cudart64_110.dll").c_str());
    }

private:
    static inline const TestClip clip{64, 48};
    static constexpr brPixelFormat formats[] = {brPixelFormat::BGRA_8_LOW, brPixelFormat::BGRA_16_LOW};

    void prepareDecoder() override { decoder().setClipsHaveLut(true); }

    void work(ScenarioOutcome& outcome) override {
        outcome.pictures.resize(std::size(formats));
        GuardedImage images[std::size(formats)];
        onStart();
        const HRESULT hr = guardBoundary([&] { return useManager(outcome, images); });
        delete std::exchange(g_manager, nullptr);
        onEnd();
        for (size_t i = 0; i < std::size(formats); ++i) {
            ScenarioPicture& picture = outcome.pictures[i];
            const auto* const bits = static_cast<const uint8_t*>(images[i].bits);
            if (picture.result == S_OK)
                picture.pixels.assign(bits, bits + images[i].bytes);
            else if (FAILED(hr))
                picture.result = hr;
        }
    }

    HRESULT useManager(ScenarioOutcome& outcome, GuardedImage* images) {
        g_manager = new vdBRAW_Manager;
        auto instance = std::make_unique<Instance>();
        instance->factory = createReferenceDecoderFactory();
        instance->isInitialised = instance->factory != nullptr;
        instance->libraryFolder = vdBstr(m_libraryFolder);
        instance->useGpuPipeline = true;
        if (g_manager->init(std::move(instance)) != 0)
            return E_UNEXPECTED;
        uint64_t id = 0;
        if (g_manager->AddClipIfNew(m_clipText, id) != 0)
            return E_FAIL;
        const std::shared_ptr<vdBRAW_Clip> opened = g_manager->GetClip(id);
        for (size_t i = 0; i < std::size(formats); ++i)
            outcome.pictures[i].result = render(*opened, formats[i], images[i]);
        g_manager->CloseClip(opened);
        return S_OK;
    }

    HRESULT render(const vdBRAW_Clip& opened, brPixelFormat format, GuardedImage& image) {
        const auto width = static_cast<int32_t>(opened.m_width);
        const auto height = static_cast<int32_t>(opened.m_height);
        const auto request = std::make_shared<CoreRequest>();
        request->m_hasCustomSettings = true;
        std::strncpy(request->m_clipSettings.gamma, brCustomGamma, sizeof request->m_clipSettings.gamma);
        std::strncpy(request->m_clipSettings.lutMode, "Embedded", sizeof request->m_clipSettings.lutMode);
        const vdStatus scaled = request->setScaleAndDimensions(
            opened, {0, width, clip.width}, {0, height, clip.height},
            {0, 0, static_cast<int32_t>(clip.width), static_cast<int32_t>(clip.height)});
        if (scaled.failed)
            return E_FAIL;
        constexpr uint64_t mostPixels = 1u << 24; // a host would not believe more either
        if (uint64_t{request->m_width} * request->m_height > mostPixels)
            return E_OUTOFMEMORY;
        const uint32_t rowBytes = request->m_width * pixelFormatBytes(format);
        request->m_image.allocate(size_t{rowBytes} * request->m_height);
        const vdStatus ready =
            request->setup(opened.m_id, opened.m_frameCount, static_cast<uint8_t*>(request->m_image.bits),
                           static_cast<int32_t>(rowBytes), format, g_manager->createBufferManager());
        if (ready.failed)
            return E_FAIL;
        request->cloneProcessingAttributes(opened);
        if (g_manager->ProcessFrameSync(request) != 0 || !request->m_isFinished ||
            request->m_errorCode != brErrorNone)
            return E_FAIL;
        image = std::move(request->m_image);
        return S_OK;
    }

    const std::string m_clipText = m_folder.text("clip.braw");
    const std::wstring m_libraryFolder = builtFile("bin", L"");
};

} // namespace

std::unique_ptr<Scenario> makeCoreScenario() {
    return std::make_unique<CoreScenario>();
}
