#include "Instance.h"

#include <sstream>

#include "Adobe/vdHost.h"
#include "BlackmagicRawAPIDispatch.h"
#include "CudaRuntime.h"
#include "Utils/vdLogging.h"
#include "Utils/vdPaths.h"
#include "Utils/vdResult.h"
#include "Utils/vdSettings.h"
#include "Utils/vdText.h"

using Microsoft::WRL::ComPtr;

namespace {

/// Serialises check, load and create, so that one library serves all instances. Lives as long as this module.
class LoaderMutex {
public:
    LoaderMutex() : m_handle(CreateMutexW(nullptr, FALSE, nullptr)) {}
    ~LoaderMutex() {
        if (m_handle)
            CloseHandle(m_handle);
    }
    /// False when the mutex could not be had, not at a second try either: what is not given back then stays.
    bool acquire() const { return tryAcquire() || tryAcquire(); }
    void release() const { ReleaseMutex(m_handle); }

private:
    bool tryAcquire() const {
        const DWORD waited = m_handle ? WaitForSingleObject(m_handle, INFINITE) : WAIT_FAILED;
        return waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
    }
    HANDLE m_handle;
};
const LoaderMutex g_loaderMutex;

class LoaderLock {
public:
    LoaderLock() : m_owned(g_loaderMutex.acquire()) {}
    ~LoaderLock() {
        if (m_owned)
            g_loaderMutex.release();
    }
    LoaderLock(const LoaderLock&) = delete;
    LoaderLock& operator=(const LoaderLock&) = delete;
    explicit operator bool() const { return m_owned; }

private:
    bool m_owned;
};

std::string libraryPath(std::string_view folder) {
    return std::string(folder) + utf16ToUtf8(BlackmagicRawAPIFileName);
}

/// A factory from the library, which is loaded from the instance's folder unless it is loaded already. The
/// instance holds the library from then on, even if it gives no factory.
IBlackmagicRawFactory* loadAndCreateFactory(Instance& instance) {
    const LoaderLock lock;
    if (!lock)
        return nullptr;
    if (instance.libraryFolder.get() && !IsBlackmagicRawAPILoaded())
        TryLoadBlackmagicRawAPI(normaliseLibraryFolder(instance.libraryFolder.view()));
    instance.library.take();
    return CreateBlackmagicRawFactory();
}

struct CodeName {
    uint32_t code;
    std::string_view name;
};

template <size_t N>
constexpr std::string_view nameOf(const CodeName (&table)[N], uint32_t code) {
    for (const CodeName& row : table)
        if (row.code == code)
            return row.name;
    return "Unknown";
}

constexpr CodeName pipelineNames[] = {
    {blackmagicRawPipelineCPU, "CPU"},
    {blackmagicRawPipelineCUDA, "CUDA"},
    {blackmagicRawPipelineMetal, "Metal"},
    {blackmagicRawPipelineOpenCL, "OpenCL"},
};

constexpr CodeName instructionSetNames[] = {
    {blackmagicRawInstructionSetSSE41, "SSE41"},
    {blackmagicRawInstructionSetAVX, "AVX"},
    {blackmagicRawInstructionSetAVX2, "AVX2"},
};

constexpr CodeName interopNames[] = {
    {blackmagicRawInteropNone, "None"},
    {blackmagicRawInteropOpenGL, "OpenGL"},
};

struct PipelineResource {
    BlackmagicRawPipeline pipeline;
    BlackmagicRawResourceType resourceType;
};

constexpr PipelineResource pipelineResources[] = {
    {blackmagicRawPipelineCPU, blackmagicRawResourceTypeBufferCPU},
    {blackmagicRawPipelineCUDA, blackmagicRawResourceTypeBufferCUDA},
    {blackmagicRawPipelineMetal, blackmagicRawResourceTypeBufferMetal},
    {blackmagicRawPipelineOpenCL, blackmagicRawResourceTypeBufferOpenCL},
};

BlackmagicRawResourceType resourceTypeOf(BlackmagicRawPipeline pipeline) {
    for (const PipelineResource& row : pipelineResources)
        if (row.pipeline == pipeline)
            return row.resourceType;
    return blackmagicRawResourceTypeBufferCPU;
}

/// Reads what the device says of itself. A figure it will not give keeps its initial value.
void describeInto(vdPipelineDevice& record, BlackmagicRawPipeline pipeline) {
    IBlackmagicRawPipelineDevice& device = *record.device.Get();
    record.resourceType = resourceTypeOf(pipeline);
    device.GetInstructionSet(&record.instructionSet);
    device.GetIndex(&record.deviceIndex);
    device.GetName(record.name.put());
    device.GetPipelineName(record.pipelineName.put());
    device.GetInterop(&record.interop);
    record.pipeline = pipeline;
    if (pipeline != blackmagicRawPipelineCPU)
        device.GetPipeline(&record.pipeline, &record.context, &record.commandQueue);
    VD_LOG_AS(vdLogLevel::info, "initPipeline", describePipelineDevice(record));
}

/// The device that the iterator stands on, described; null, with a log line, when it cannot be made.
std::unique_ptr<vdPipelineDevice> createDevice(IBlackmagicRawPipelineDeviceIterator& devices,
                                               BlackmagicRawPipeline pipeline) {
    auto record = std::make_unique<vdPipelineDevice>();
    const HRESULT hr = devices.CreateDevice(&record->device);
    if (hr == S_OK && record->device) {
        describeInto(*record, pipeline);
        return record;
    }
    VD_LOG_AS(vdLogLevel::error, "initPipeline", "- Error while creating Device : " << hresultText(hr));
    return nullptr;
}

/// More pipelines than any library can have.
constexpr int mostPipelines = 64;

/// Walks the library's pipelines to the first that will do and whose device can be made. Null when there is
/// none, or when a pipeline's devices cannot even be listed.
std::unique_ptr<vdPipelineDevice> findDevice(IBlackmagicRawFactory& factory, BlackmagicRawPipeline wanted,
                                             bool acceptAny) {
    ComPtr<IBlackmagicRawPipelineIterator> pipelines;
    HRESULT hr = factory.CreatePipelineIterator(blackmagicRawInteropNone, &pipelines);
    if (hr != S_OK || !pipelines) {
        VD_LOG_AS(vdLogLevel::error, "initPipeline",
                  "Error while creating Pipeline Iterator : " << hresultText(hr));
        return nullptr;
    }
    BlackmagicRawPipeline pipeline = 0;
    hr = pipelines->GetPipeline(&pipeline);
    if (hr != S_OK)
        VD_LOG_AS(vdLogLevel::error, "initPipeline", "Getting First Pipeline error : " << hresultText(hr));
    for (int i = 0; hr == S_OK && pipeline != 0; ++i) {
        if (i == mostPipelines) {
            VD_LOG_AS(vdLogLevel::error, "initPipeline", "The Pipeline Iterator does not come to an end");
            return nullptr;
        }
        VD_LOG_AS(vdLogLevel::info, "initPipeline", "-- New Pipeline : " << nameOf(pipelineNames, pipeline));
        if (pipeline == wanted || acceptAny) {
            ComPtr<IBlackmagicRawPipelineDeviceIterator> devices;
            hr = factory.CreatePipelineDeviceIterator(pipeline, blackmagicRawInteropNone, &devices);
            if (hr != S_OK || !devices) {
                VD_LOG_AS(vdLogLevel::error, "initPipeline",
                          "- Error while creating Device Iterator : " << hresultText(hr));
                return nullptr;
            }
            if (auto record = createDevice(*devices.Get(), pipeline))
                return record;
        }
        hr = pipelines->Next();
        if (hr == S_OK)
            hr = pipelines->GetPipeline(&pipeline);
    }
    return nullptr;
}

} // namespace

void brLibraryHold::take() noexcept {
    // Even without the lock: a library that goes under its user is worse than one that stays too long.
    const LoaderLock lock;
    if (!m_isHeld)
        m_isHeld = HoldBlackmagicRawAPI();
}

void brLibraryHold::giveBack() noexcept {
    if (!m_isHeld)
        return;
    // Without the lock the library stays: that costs memory, and nothing else.
    if (const LoaderLock lock; lock)
        ReleaseBlackmagicRawAPI();
    m_isHeld = false;
}

void brLibraryHold::keepForGood() noexcept {
    m_isHeld = false;
}

Instance::~Instance() {
    Release(*this);
}

int32_t initBM(Instance& instance) {
    if (instance.isInitialised)
        return 1;
    if ((options().prproHybridGPUCPUDecoding && instance.framework == brFrameworkPremiere) ||
        (options().aeLayerSettingsGPUEnabled3 && instance.framework == brFrameworkAfterEffects))
        instance.useGpuPipeline = true;
    const std::string ownFolder = utf16ToUtf8(GetDylibParentFolderPath());
    if (!ownFolder.empty() && tryToInitBM(instance, ownFolder))
        return 0;
    return tryToInitBM(instance, utf16ToUtf8(BlackmagicRawAPIHostFolder)) ? 0 : 1;
}

bool tryToInitBM(Instance& instance, std::string_view folder) {
    if (!fileExists(libraryPath(folder))) {
        VD_LOG_INFO("This path does not exist - No need to try to create IBlackmagicRawFactory with it");
        return false;
    }
    if (!folder.empty())
        instance.libraryFolder = vdBstr(utf8ToUtf16(folder));
    instance.factory = loadAndCreateFactory(instance);
    instance.isInitialised = instance.factory != nullptr;
    if (!instance.isInitialised) {
        VD_LOG_ERROR("Failed to create IBlackmagicRawFactory with this path " << folder);
        return false;
    }
    VD_LOG_INFO("Succeeded in creating IBlackmagicRawFactory with this path " << folder);
    return true;
}

bool isTheDllLastVersion(const Instance& instance) {
    const int64_t size = fileSize(libraryPath(utf16ToUtf8(instance.libraryFolder.view())));
    VD_LOG_INFO("Dll Filesize : " << size);
    return size == BlackmagicRawAPIFileSize;
}

int32_t Release(Instance& instance) noexcept {
    instance.libraryFolder.reset();
    instance.pipelineDevice.reset();
    if (IBlackmagicRawFactory* factory = std::exchange(instance.factory, nullptr))
        factory->Release();
    VD_LOG_INFO("Releasing BMD Libs Win");
    if (instance.library.isHeld())
        instance.library.giveBack();
    else if (!IsBlackmagicRawAPILoaded())
        ReleaseBlackmagicRawAPI(); // says that there is nothing to do
    VD_LOG_INFO("BMD Libs Released");
    instance.isInitialised = false;
    return 0;
}

bool initPipeline(Instance& instance, BlackmagicRawPipeline wantedPipeline, bool acceptAnyPipeline) {
    VD_LOG_INFO("Initializing Pipeline");
    if (!instance.isInitialised || !instance.factory)
        return false;
    auto record = findDevice(*instance.factory, wantedPipeline, acceptAnyPipeline);
    if (!record)
        return false;
    if (instance.useGpuPipeline && record->pipeline == blackmagicRawPipelineCUDA) {
        VD_LOG_INFO("Loading CUDA");
        // A missing runtime shows when it is first needed; the decoder may well do without.
        std::string unused;
        loadCudaRuntime(unused);
    }
    VD_LOG_INFO("Replacing old pipeline with new one created");
    instance.pipelineDevice = std::move(record);
    return true;
}

std::string describePipelineDevice(const vdPipelineDevice& device) {
    std::ostringstream text;
    text << "- Pipeline Infos : \n"
         << "    - Instruction set : " << nameOf(instructionSetNames, device.instructionSet) << "\n"
         << "    - Device Index : " << device.deviceIndex << "\n"
         << "    - Interop : " << nameOf(interopNames, device.interop) << "\n"
         << "    - Name : " << utf16ToUtf8(device.name.view()) << "\n"
         << "    - Pipeline Name : " << utf16ToUtf8(device.pipelineName.view()) << "\n";
    return text.str();
}
