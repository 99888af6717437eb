#include "Manager.h"

#include <algorithm>
#include <iterator>
#include <sstream>

#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"
#include "Utils/vdText.h"

using Microsoft::WRL::ComPtr;

vdBRAW_Manager* g_manager = nullptr;

namespace {

constexpr const char* initFunction = "initFromFramework";
constexpr std::string_view notInitialised = "Blackmagic is not initialized : Abnormal error.";

/// How often the library is asked to finish its jobs, and how long those that it leaves running are waited
/// for, before they count as never ending.
constexpr int flushAttempts = 3;
constexpr uint32_t lastJobsMilliseconds = 2000;

/// The library's wide text in UTF-8.
template <class Getter>
std::string textOf(Getter&& getter) {
    vdBstr text;
    getter(text.put());
    return utf16ToUtf8(text.view());
}

/// The last two are one letter short on purpose: so they have always stood in the log, and so they are
/// searched for in it.
std::string_view configuredPipelineName(BlackmagicRawPipeline pipeline) {
    switch (pipeline) {
    case blackmagicRawPipelineCPU:
        return "CPU";
    case blackmagicRawPipelineCUDA:
        return "CUDA";
    case blackmagicRawPipelineMetal:
        return "Meta";
    case blackmagicRawPipelineOpenCL:
        return "OpenC";
    default:
        return "";
    }
}

} // namespace

vdBRAW_Manager::vdBRAW_Manager() : m_errorInfo(vdFailure(notInitialised)) {}

vdBRAW_Manager::~vdBRAW_Manager() {
    Release();
    m_queue.clear(); // gives buffers back, which may be all that keeps a codec alive
    settleSession();
    if (m_keepsInstance)
        static_cast<void>(m_instance.release());
    m_instance.reset();
    // The callback goes with the session: after the library that may hold it uncounted.
}

// Initialisation and release.

int vdBRAW_Manager::init(std::unique_ptr<Instance> instance) {
    if (!instance) {
        VD_LOG_ERROR("vdBRAW_Manager init - Instance is nullptr !");
        return 1;
    }
    if (!m_errorInfo.failed) {
        VD_LOG_ERROR("m_errorInfo should be on Error at init");
        return 1;
    }
    m_instance = std::move(instance);
    m_isLibraryAccepted = false;
    m_errorInfo = {};
    if (!m_instance->isInitialised)
        return failInit(
            "Blackmagic RAW library hasn't been found - Please Reinstall our Software from our website",
            "init", "vdBRAW_Manager init - Instance BMInit was false");
    if (!m_instance->factory)
        return failInit("Manager Init : Factory is nullptr", "init",
                        "vdBRAW_Manager init - Instance Factory was nullptr");
    if (!isTheDllLastVersion(*m_instance))
        return failInit("Blackmagic RAW library has not the good version  - Please Reinstall our Software "
                        "from our website",
                        "init", "vdBRAW_Manager init - BlackmagicRawAPI seems to be an old version.");
    m_isLibraryAccepted = true;
    return initFromFramework(blackmagicRawPipelineCPU, m_instance->useGpuPipeline);
}

int vdBRAW_Manager::failInit(std::string_view errorInfo, const char* function, std::string_view logLine) {
    m_errorInfo = vdFailure(errorInfo);
    VD_LOG_AS(vdLogLevel::error, function, logLine);
    return 1;
}

int vdBRAW_Manager::failInit(std::string_view errorInfo, HRESULT hr, std::string_view logLine) {
    m_errorInfo = vdFailure(errorInfo); // first: the line needs memory
    VD_LOG_AS(vdLogLevel::error, initFunction, (logLine.empty() ? errorInfo : logLine) << hresultText(hr));
    return 1;
}

int vdBRAW_Manager::initFromFramework(BlackmagicRawPipeline pipeline, bool useGPU) {
    if (!m_isLibraryAccepted)
        return 1;
    m_errorInfo = vdFailure(notInitialised);                              // whatever ends this half-way
    const bool isNewDevice = initPipeline(*m_instance, pipeline, useGPU); // the session holds the old one
    if (!isNewDevice && m_configuration)
        rebindDevice();
    std::vector<std::shared_ptr<vdBRAW_Clip>> toReload;
    if (m_codec)
        toReload = closeForReinitialisation();
    if (createCodec() != 0 || installCallback() != 0)
        return 1;
    m_errorInfo = {};
    logCodecConfiguration();
    for (const std::shared_ptr<vdBRAW_Clip>& clip : toReload)
        clip->reload(m_codec.Get());
    return 0;
}

void vdBRAW_Manager::rebindDevice() {
    const vdPipelineDevice* current = m_instance->pipelineDevice.get();
    if (!current)
        return;
    const HRESULT hr = m_configuration->SetFromDevice(current->device.Get());
    if (hr != S_OK)
        VD_LOG_AS(vdLogLevel::error, initFunction,
                  "Error while setting " << utf16ToUtf8(current->pipelineName.view())
                                         << " pipeline to main Codec in setFromDevice : " << hresultText(hr));
}

std::vector<std::shared_ptr<vdBRAW_Clip>> vdBRAW_Manager::closeForReinitialisation() {
    FlushQueue();
    const Rest rest = bringToRest(initFunction);
    std::vector<std::shared_ptr<vdBRAW_Clip>> clips = allClips();
    for (const std::shared_ptr<vdBRAW_Clip>& clip : clips)
        clip->Close(true);
    letGoOfCodec(rest, initFunction);
    return clips;
}

int vdBRAW_Manager::createCodec() {
    settleSession();
    const vdPipelineDevice* current = m_instance->pipelineDevice.get();
    m_session = std::make_shared<brCodecSession>(current ? current->device : nullptr);
    HRESULT hr = m_instance->factory->CreateCodec(&m_codec);
    if (hr != S_OK || !m_codec)
        return failInit("Blackmagic Factory creation error : Abnormal error.", hr,
                        "vdBRAW_Manager init - Failed to create IBlackmagicRaw (CreateCodec function) : ");
    hr = m_codec.As(&m_configuration);
    if (hr != S_OK || !m_configuration)
        return failInit("Impossible to Query BlackmagicRawConfiguraton from Codec", hr,
                        "vdBRAW_Manager init - Impossible to query Configuration from Codec : ");
    const HRESULT bound = bindDevice();
    hr = m_codec.As(&m_configurationEx);
    if (hr != S_OK || !m_configurationEx)
        return failInit("Impossible to Get ConfigurationEx from Codec", hr);
    hr = m_configurationEx->GetResourceManager(&m_resourceManager);
    if (hr != S_OK || !m_resourceManager)
        return failInit("Impossible to Get ResourceManager from ConfigurationEx", hr);
    hr = m_codec.As(&m_manualDecoderCPU);
    if (hr != S_OK || !m_manualDecoderCPU)
        return failInit("Impossible to Get ManualDecoderCPU from Codec", hr);
    if (SUCCEEDED(bound) && usesGPU())
        queryGPUDecoder();
    return 0;
}

bool vdBRAW_Manager::usesGPU() const {
    const vdPipelineDevice* current = m_instance->pipelineDevice.get();
    return current && current->pipeline != blackmagicRawPipelineCPU;
}

HRESULT vdBRAW_Manager::bindDevice() {
    if (!usesGPU() || !m_instance->pipelineDevice->device)
        return S_OK;
    const HRESULT hr = m_configuration->SetFromDevice(m_instance->pipelineDevice->device.Get());
    if (hr != S_OK)
        VD_LOG_AS(vdLogLevel::error, initFunction,
                  "Impossible to SetFromDevice on new Codec : " << hresultText(hr));
    return hr;
}

void vdBRAW_Manager::queryGPUDecoder() {
    const HRESULT hr = m_codec.As(&m_manualDecoderGPU);
    if (hr != S_OK || !m_manualDecoderGPU)
        VD_LOG_AS(vdLogLevel::error, initFunction,
                  "Impossible to Get ManualDecoderGPU from Codec" << hresultText(hr));
}

int vdBRAW_Manager::installCallback() {
    if (!m_session->makeCallback())
        return failInit("Blackmagic Callback creation error : Abnormal error.", initFunction,
                        "vdBRAW_Manager init - Failed to create vdBRAW_Manager_Callback!");
    if (m_codec->SetCallback(m_session->callback()) != S_OK)
        return failInit("Blackmagic Callback setting error : Abnormal error.", initFunction,
                        "vdBRAW_Manager init - Failed to set IBlackmagicRawCallback!");
    return 0;
}

void vdBRAW_Manager::logCodecConfiguration() {
    if (!vdLogs(vdLogLevel::info))
        return;
    IBlackmagicRawConfiguration& configuration = *m_configuration.Get();
    uint32_t threads = 0;
    uint32_t maxThreads = 0;
    configuration.GetCPUThreads(&threads);
    configuration.GetMaxCPUThreadCount(&maxThreads);
    const auto supports = [&](BlackmagicRawPipeline pipeline) {
        BOOL isSupported = FALSE;
        configuration.IsPipelineSupported(pipeline, &isSupported);
        return isSupported != FALSE;
    };
    const bool cpu = supports(blackmagicRawPipelineCPU);
    const bool cuda = supports(blackmagicRawPipelineCUDA);
    const bool metal = supports(blackmagicRawPipelineMetal);
    const bool openCL = supports(blackmagicRawPipelineOpenCL);
    BOOL writesMetadata = FALSE;
    configuration.GetWriteMetadataPerFrame(&writesMetadata);
    const std::string version = textOf([&](BSTR* text) { configuration.GetVersion(text); });
    const std::string cameraVersion =
        textOf([&](BSTR* text) { configuration.GetCameraSupportVersion(text); });
    BlackmagicRawPipeline pipeline = blackmagicRawPipelineCPU;
    configuration.GetPipeline(&pipeline, nullptr, nullptr);
    VD_LOG_INFO("Thread : \n"
                << "    - Count : " << threads << "\n"
                << "    - MaxCount : " << maxThreads << "\n"
                << "Pipeline supported : \n"
                << "    - CPU : " << cpu << "\n"
                << "    - CUDA : " << cuda << "\n"
                << "    - METAL : " << metal << "\n"
                << "    - OPENCL : " << openCL << "\n"
                << "General Infos : \n"
                << "    - Current Pipeline : " << configuredPipelineName(pipeline) << "\n"
                << "    - WriteMetadataPerFrame : " << (writesMetadata != FALSE) << "\n"
                << "    - Version : " << version << "\n"
                << "    - Camera Supported Version : " << cameraVersion);
}

int vdBRAW_Manager::Release() {
    VD_LOG_INFO("Releasing Global Manager");
    const bool hasCodec = m_codec != nullptr;
    const Rest rest = hasCodec ? bringToRest(__func__) : Rest::complete;
    releaseClips();
    if (hasCodec)
        letGoOfCodec(rest, __func__);
    return 0;
}

/// A job that is still running must not start further work on what is released next, so its request is
/// cancelled, and stays queued.
vdBRAW_Manager::Rest vdBRAW_Manager::bringToRest(const char* function) {
    bool isFlushTrue = true;
    for (int attempt = 0; attempt < flushAttempts; ++attempt) {
        const HRESULT hr = m_codec->FlushJobs();
        if (attempt == 0)
            cancelQueue(function);
        const bool isAtRest = m_session->isAtRest();
        if (SUCCEEDED(hr) && isAtRest)
            return isFlushTrue ? Rest::complete : Rest::ofJobs;
        isFlushTrue = isFlushTrue && FAILED(hr); // it says so with jobs running
        VD_LOG_AS(vdLogLevel::error, function, "Impossible to Flush Jobs ! " << hresultText(hr));
    }
    if (!m_session->isAtRest(lastJobsMilliseconds))
        return Rest::incomplete;
    return SUCCEEDED(m_codec->FlushJobs()) && isFlushTrue ? Rest::complete : Rest::ofJobs;
}

void vdBRAW_Manager::letGoOfCodec(Rest rest, const char* function) {
    if (rest == Rest::incomplete)
        return abandonCodec(function);
    if (rest == Rest::ofJobs) {
        VD_LOG_AS(vdLogLevel::error, function,
                  "FlushJobs never worked : the decoder library stays loaded for good");
        m_session->keepForGood();
    }
    vdLock lock(m_queueMutex, "QueueMutex", function);
    for (const std::shared_ptr<vdBRAW_Request>& request : m_queue)
        if (request->m_bufferManager && request->m_bufferManager->m_session == m_session) {
            request->m_keptByJob.reset(); // of a completion that could not tell whose it was
            request->giveBackClip();
        }
    lock.unlock();
    releaseCodec();
}

void vdBRAW_Manager::releaseCodec() {
    m_manualDecoderCPU.Reset();
    m_manualDecoderGPU.Reset();
    m_resourceManager.Reset();
    m_configurationEx.Reset();
    m_configuration.Reset();
    m_codec.Reset();
}

/// A job is still running, and nobody can tell until when: what it may use stays for good. Its request keeps
/// itself, and with it the buffers, their memory and the clip.
void vdBRAW_Manager::abandonCodec(const char* function) {
    VD_LOG_AS(vdLogLevel::error, function,
              "A job does not end : codec, callback and decoder library stay loaded for good");
    m_session->keepForGood();
    m_session->keepDeviceForGood();
    m_keepsInstance = true;
    m_manualDecoderCPU.Detach();
    m_manualDecoderGPU.Detach();
    m_resourceManager.Detach();
    m_configurationEx.Detach();
    m_configuration.Detach();
    m_codec.Detach();
}

/// For the session of a codec that has been given back. Where buffers of the codec are left, the session ends
/// with the last of them.
void vdBRAW_Manager::settleSession() {
    if (m_session && m_session.use_count() == 1 && !m_session->settle())
        m_keepsInstance = true;
}

std::unique_ptr<brBufferManager> vdBRAW_Manager::createBufferManager() const {
    const vdPipelineDevice* device = m_instance ? m_instance->pipelineDevice.get() : nullptr;
    auto buffers = std::make_unique<brBufferManager>(
        m_resourceManager.Get(), m_manualDecoderCPU.Get(), m_manualDecoderGPU.Get(),
        device ? device->resourceType : blackmagicRawResourceTypeBufferCPU,
        device ? device->context : nullptr, device ? device->commandQueue : nullptr);
    buffers->m_session = m_session;
    return buffers;
}

// Clips.

std::shared_ptr<vdBRAW_Clip> vdBRAW_Manager::GetClip(uint64_t id) {
    std::shared_ptr<vdBRAW_Clip> clip;
    {
        vdLock lock(m_clipsMutex, "m_clipsMutex");
        if (const auto entry = m_clips.find(id); entry != m_clips.end())
            clip = entry->second;
    }
    if (clip && !clip->m_isOpened)
        VD_LOG_WARN("Getting Clip Closed ! Could involve errors");
    return clip;
}

uint32_t vdBRAW_Manager::GetClipIDFromFilepath(std::string_view path, uint64_t& idOut,
                                               std::shared_ptr<vdBRAW_Clip>& clipOut) {
    vdLock lock(m_clipsMutex, "m_clipsMutex");
    for (const auto& [id, clip] : m_clips)
        if (clip->m_filePath == path) {
            idOut = id;
            clipOut = clip;
            return 1;
        }
    return 0;
}

int vdBRAW_Manager::AddClipIfNew(std::string_view path, uint64_t& idOut) {
    VD_LOG_INFO("Calling AddClipIfNew with path : " << path);
    std::shared_ptr<vdBRAW_Clip> clip;
    if (GetClipIDFromFilepath(path, idOut, clip) == 0) {
        VD_LOG_INFO("Clip has not been found : need to add it");
        return AddClip(path, idOut);
    }
    VD_LOG_INFO("Clip has been found. ID : " << idOut);
    if (clip->doesNeedToBeReloaded() && m_codec)
        clip->reload(m_codec.Get()); // what fails here shows when a frame is asked for
    return 0;
}

int vdBRAW_Manager::AddClip(std::string_view path, uint64_t& idOut) {
    VD_LOG_INFO("Calling AddClip");
    if (m_errorInfo.failed || !m_codec)
        return 1;
    vdLock lock(m_clipsMutex, "m_clipsMutex");
    idOut = m_clips.size();
    const auto clip = std::make_shared<vdBRAW_Clip>(idOut, std::string(path));
    VD_LOG_INFO("Opening new clip");
    ComPtr<IBlackmagicRawClipGeometry> geometry;
    if (const HRESULT hr = createGeometryForClip(geometry); FAILED(hr))
        return hr;
    const vdStatus status = clip->openAndInit(m_codec.Get(), geometry.Get());
    if (status.failed) {
        VD_LOG_ERROR("Error while Opening and Initializing Clip : " << status.text());
    } else {
        m_clips.emplace(idOut, clip);
        VD_LOG_INFO("New Clip from " << path << " initialized with ID #" << idOut);
    }
    VD_LOG_INFO("Number of clips in memory : " << openedClipCount());
    if (status.failed)
        VD_LOG_ERROR("Opening clip did not work !");
    return status.failed;
}

std::vector<std::shared_ptr<vdBRAW_Clip>> vdBRAW_Manager::allClips() {
    std::vector<std::shared_ptr<vdBRAW_Clip>> clips;
    vdLock lock(m_clipsMutex, "m_clipsMutex");
    for (const auto& [id, clip] : m_clips)
        clips.push_back(clip);
    return clips;
}

/// Closes all clips and empties the registry. Whoever still has a clip has its facts; what of it is the
/// library's goes while the library is there.
void vdBRAW_Manager::releaseClips() {
    vdLock lock(m_clipsMutex, "m_clipsMutex", "Release");
    for (const auto& [id, clip] : m_clips) {
        if (clip->m_isOpened)
            clip->Close(false);
        vdLock clipLock(clip->m_bmClipMutex, "m_bmClipMutex", "Release");
        clip->m_bmGeometry.Reset();
    }
    m_clips.clear();
}

size_t vdBRAW_Manager::openedClipCount() const {
    return static_cast<size_t>(std::count_if(
        m_clips.begin(), m_clips.end(), [](const auto& entry) -> bool { return entry.second->m_isOpened; }));
}

HRESULT vdBRAW_Manager::createGeometryForClip(ComPtr<IBlackmagicRawClipGeometry>& geometryOut) const {
    HRESULT hr = m_instance->factory->CreateClipGeometry(&geometryOut);
    if (SUCCEEDED(hr) && !geometryOut)
        hr = E_UNEXPECTED;
    if (FAILED(hr)) {
        VD_LOG_ERROR("Impossible to Create Clip Geometry .. " << hresultText(hr));
        return hr;
    }
    geometryOut->SetOrientationMode(blackmagicRawGeometryDisabled);
    if (m_useMetadataGeometry)
        geometryOut->SetOrientationMode(blackmagicRawGeometryMetadata);
    geometryOut->SetVerticalFlip(blackmagicRawGeometryDisabled);
    if (m_flipVertical) {
        VD_LOG_INFO("Opening Clip with Flip Vertical");
        geometryOut->SetVerticalFlip(blackmagicRawGeometryFlipVertical);
    }
    return S_OK;
}

int vdBRAW_Manager::CloseClip(const std::shared_ptr<vdBRAW_Clip>& clip) {
    return clip ? clip->Close(false) : 0;
}
