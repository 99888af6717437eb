// The child's side of a first meeting: what it holds of the library, and the walk over the stages.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <windows.h>
#include <wrl/client.h>

#include "ProbeReport.h"
#include "ProbeStages.h"

namespace probe {

/// Memory that ends where an inaccessible page begins: writing beyond it shows at once.
class GuardedBuffer {
public:
    GuardedBuffer() = default;
    ~GuardedBuffer() { reset(0); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    /// Filled with `filler`; false when there is no such memory.
    bool reset(size_t size);
    uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }

    static constexpr uint8_t filler = 0xA5;

private:
    void* m_base = nullptr;
    uint8_t* m_data = nullptr;
    size_t m_size = 0;
};

/// What is held of the library between one stage and the next. Written by one thread at a time: each segment
/// begins when the one before it has handed over.
struct Holdings {
    template <class Interface>
    using Com = Microsoft::WRL::ComPtr<Interface>;

    HMODULE module = nullptr;
    CreateBlackmagicRawFactoryInstanceFunction entry = nullptr;
    Com<IBlackmagicRawFactory> factory;
    Com<IBlackmagicRawPipelineIterator> pipelines;
    Com<IBlackmagicRawPipelineDeviceIterator> devices;
    Com<IBlackmagicRawPipelineDevice> device;
    Com<IBlackmagicRaw> codec;
    Com<IBlackmagicRawConfiguration> configuration;
    Com<IBlackmagicRawConfigurationEx> configurationEx;
    Com<IBlackmagicRawResourceManager> resources;
    Com<IBlackmagicRawManualDecoderFlow1> decoder;
    Com<IBlackmagicRawManualDecoderFlow2> gpuDecoder;
    Com<IBlackmagicRawClipGeometry> geometry;
    Com<IBlackmagicRawClip> clip;
    Com<IBlackmagicRawClipEx> clipEx;
    Com<IBlackmagicRawClipResolutions> resolutions;
    Com<IBlackmagicRawClipProcessingAttributes> attributes;
    Com<IBlackmagicRawPost3DLUT> lut;
    Com<IBlackmagicRawJob> job; ///< the one that is being prepared

    uint32_t width = 0, height = 0;
    struct Resolution {
        uint32_t width = 0, height = 0;
        BlackmagicRawResolutionScale scale{};
    };
    std::vector<Resolution> sizes;
    Resolution chosen; ///< the size that the handler would take for a thumbnail of 256

    void* bitStream = nullptr;
    uint32_t bitStreamBytes = 0;
    void* frameState = nullptr;
    uint32_t frameStateBytes = 0;
    void* decoded = nullptr;
    uint32_t decodedBytes = 0;
    GuardedBuffer picture;

    // What the completion at hand was given; the library's, for as long as it lasts.
    IBlackmagicRawJob* completedJob = nullptr;
    HRESULT completedResult = S_OK;
    IBlackmagicRawFrame* frame = nullptr;
    IBlackmagicRawProcessedImage* image = nullptr;
    uint32_t imageWidth = 0, imageHeight = 0;
};

class Meeting : public IBlackmagicRawCallback {
public:
    Meeting(Report& report, std::wstring clip, std::wstring library, std::wstring picture);
    ~Meeting();
    Meeting(const Meeting&) = delete;
    Meeting& operator=(const Meeting&) = delete;

    /// Walks the whole road, or to the first trouble that ends it.
    void walk();

    const std::wstring& clipPath() const { return m_clip; }
    const std::wstring& libraryPath() const { return m_library; }
    const std::wstring& picturePath() const { return m_picture; } ///< empty: none is wanted
    /// The picture as a page of characters in the report, the brighter the denser.
    void sketchPicture();
    HRESULT savePicture() const;
    /// Waits for the last completion to end; false when it has not after `milliseconds`.
    bool isPictureThere(DWORD milliseconds) const;
    /// The library owes the next completion from now on.
    void awaitNextCompletion();

    Holdings holdings;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID identifier, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override { return --m_references; }
    void STDMETHODCALLTYPE ReadComplete(IBlackmagicRawJob* job, HRESULT result,
                                        IBlackmagicRawFrame* frame) override;
    void STDMETHODCALLTYPE DecodeComplete(IBlackmagicRawJob* job, HRESULT result) override;
    void STDMETHODCALLTYPE ProcessComplete(IBlackmagicRawJob* job, HRESULT result,
                                           IBlackmagicRawProcessedImage* image) override;
    void STDMETHODCALLTYPE TrimProgress(IBlackmagicRawJob*, float) override {}
    void STDMETHODCALLTYPE TrimComplete(IBlackmagicRawJob*, HRESULT) override {}
    void STDMETHODCALLTYPE SidecarMetadataParseWarning(IBlackmagicRawClip*, BSTR, uint32_t, BSTR) override {}
    void STDMETHODCALLTYPE SidecarMetadataParseError(IBlackmagicRawClip*, BSTR, uint32_t, BSTR) override {}
    void STDMETHODCALLTYPE PreparePipelineComplete(void*, HRESULT) override {}

private:
    bool walk(Segment segment);
    bool runStage(uint32_t index);
    Row* begin(uint32_t index);
    bool end(Row& row, const Outcome& outcome);
    void complete(Segment segment, IBlackmagicRawJob* job, HRESULT result);
    void tellMissingCompletion();

    Report& m_report;
    std::wstring m_clip, m_library, m_picture;
    std::atomic<uint32_t> m_rows{0};
    std::atomic<ULONG> m_references{1};
    std::atomic<bool> m_isTroubled{false};
    std::atomic<Segment> m_completions{Segment::opening}; ///< the last that has come, `opening` before all
    HANDLE m_over = nullptr;                              ///< signalled when no further completion is to come
};

/// The child's whole work: `section` is the report's, inherited from the parent. Ends the process.
[[noreturn]] void meetInThisProcess(HANDLE section, const std::wstring& clip, const std::wstring& library,
                                    const std::wstring& picture);

} // namespace probe
