#include "Manager.h"

#include <algorithm>
#include <sstream>

#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"
#include "Utils/vdText.h"

using Microsoft::WRL::ComPtr;

vdBRAW_Manager* g_manager = nullptr;

namespace {

constexpr const char* initFunction = "initFromFramework";

/// The library's wide text in UTF-8.
template <class Getter>
std::string textOf(Getter&& getter) {
    vdBstr text;
    getter(text.put());
    return utf16ToUtf8(text.view());
}

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

vdBRAW_Manager::vdBRAW_Manager()
    : m_errorInfo(vdFailure("Blackmagic is not initialized : Abnormal error.")) {}

vdBRAW_Manager::~vdBRAW_Manager() {
    Release();
    m_queue.clear(); // gives buffers back, so before the library goes
    m_instance.reset();
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
    return initFromFramework(blackmagicRawPipelineCPU, m_instance->useGpuPipeline);
}

int vdBRAW_Manager::failInit(std::string_view errorInfo, const char* function, std::string_view logLine) {
    m_errorInfo = vdFailure(errorInfo);
    VD_LOG_AS(vdLogLevel::error, function, logLine);
    return 1;
}

int vdBRAW_Manager::failInit(std::string_view errorInfo, HRESULT hr) {
    return failInit(errorInfo, initFunction, std::string(errorInfo) + hresultText(hr));
}

int vdBRAW_Manager::initFromFramework(BlackmagicRawPipeline pipeline, bool useGPU) {
    const bool isNewDevice = initPipeline(*m_instance, pipeline, useGPU);
    if (!isNewDevice && m_configuration)
        rebindDevice();
    std::vector<uint64_t> toReload;
    if (m_codec)
        toReload = closeForReinitialisation();
    if (createCodec() != 0 || installCallback() != 0)
        return 1;
    logCodecConfiguration();
    for (const uint64_t id : toReload)
        if (const std::shared_ptr<vdBRAW_Clip> clip = GetClip(id))
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

std::vector<uint64_t> vdBRAW_Manager::closeForReinitialisation() {
    FlushQueue();
    std::vector<uint64_t> closed;
    for (const auto& [id, clip] : m_clips) {
        clip->Close(true);
        closed.push_back(id);
    }
    releaseCodec();
    return closed;
}

int vdBRAW_Manager::createCodec() {
    HRESULT hr = m_instance->factory->CreateCodec(&m_codec);
    if (hr != S_OK || !m_codec)
        return failInit("Blackmagic Factory creation error : Abnormal error.", initFunction,
                        "vdBRAW_Manager init - Failed to create IBlackmagicRaw (CreateCodec function) : " +
                            hresultText(hr));
    hr = m_codec.As(&m_configuration);
    if (hr != S_OK || !m_configuration)
        return failInit("Impossible to Query BlackmagicRawConfiguraton from Codec", initFunction,
                        "vdBRAW_Manager init - Impossible to query Configuration from Codec : " +
                            hresultText(hr));
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
    m_callback.reset(new (std::nothrow) vdBRAW_Manager_Callback);
    if (!m_callback)
        return failInit("Blackmagic Callback creation error : Abnormal error.", initFunction,
                        "vdBRAW_Manager init - Failed to create vdBRAW_Manager_Callback!");
    if (m_codec->SetCallback(m_callback.get()) != S_OK)
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
    if (m_codec)
        m_codec->FlushJobs();
    {
        // What the flush left behind must not start further work on what is released now. It stays queued: a
        // job of it may still be running, and ends at the latest with the codec.
        vdLock lock(m_queueMutex, "QueueMutex");
        for (const std::shared_ptr<vdBRAW_Request>& request : m_queue)
            finishedOrCancelled(*request);
    }
    {
        vdLock lock(m_clipsMutex, "m_clipsMutex");
        m_clips.clear();
    }
    releaseCodec();
    return 0;
}

void vdBRAW_Manager::releaseCodec() {
    m_manualDecoderCPU.Reset();
    m_manualDecoderGPU.Reset();
    m_resourceManager.Reset();
    m_configurationEx.Reset();
    m_configuration.Reset();
    m_codec.Reset();
    m_callback.reset(); // last: the codec calls it as long as it lives
}

std::unique_ptr<brBufferManager> vdBRAW_Manager::createBufferManager() const {
    const vdPipelineDevice* device = m_instance ? m_instance->pipelineDevice.get() : nullptr;
    return std::make_unique<brBufferManager>(
        m_resourceManager.Get(), m_manualDecoderCPU.Get(), m_manualDecoderGPU.Get(),
        device ? device->resourceType : blackmagicRawResourceTypeBufferCPU,
        device ? device->context : nullptr, device ? device->commandQueue : nullptr);
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
    for (uint64_t id = 0; id < m_clips.size(); ++id) {
        const std::shared_ptr<vdBRAW_Clip>& clip = m_clips.at(id);
        if (clip->m_filePath == path) {
            idOut = clip->m_id;
            clipOut = clip;
            return 1;
        }
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
    if (clip->doesNeedToBeReloaded())
        clip->reload(m_codec.Get()); // what fails here shows when a frame is asked for
    return 0;
}

int vdBRAW_Manager::AddClip(std::string_view path, uint64_t& idOut) {
    VD_LOG_INFO("Calling AddClip");
    if (m_errorInfo.failed)
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

size_t vdBRAW_Manager::openedClipCount() const {
    return static_cast<size_t>(std::count_if(m_clips.begin(), m_clips.end(),
                                             [](const auto& entry) { return entry.second->m_isOpened; }));
}

HRESULT vdBRAW_Manager::createGeometryForClip(ComPtr<IBlackmagicRawClipGeometry>& geometryOut) {
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

int vdBRAW_Manager::CloseClip(std::shared_ptr<vdBRAW_Clip> clip) {
    return clip ? clip->Close(false) : 0;
}

// Requests.

int vdBRAW_Manager::AddProcessFrameAsync(std::shared_ptr<vdBRAW_Request> request) {
    if (!request)
        return 1;
    const bool read = request->m_isEnabled && request->m_errorCode == brErrorNone;
    request->m_isProcessing = read;
    request->m_isSubmitted = true;
    reserveQueueSlot();
    if (!read) {
        if (!request->m_isEnabled)
            if (const vdStatus delivered = request->onProcessComplete(); delivered.failed)
                request->failUnlocked(brErrorDelivery, S_OK, delivered.text());
        enqueue(std::move(request), __func__);
        return 0;
    }
    brBufferManager::Job job; // given back after the request is queued
    const Submission submission = submitRead(*request, job);
    if (submission.result == S_OK) {
        job.Reset();
        enqueue(std::move(request), __func__);
        return 0;
    }
    queueWithError(std::move(request), submission);
    return submission.result;
}

void vdBRAW_Manager::queueWithError(std::shared_ptr<vdBRAW_Request> request, const Submission& failure) {
    request->failUnlocked(failure.code, failure.errorResult, failure.message);
    enqueue(std::move(request), "operator ()");
}

vdBRAW_Manager::Submission vdBRAW_Manager::submitRead(vdBRAW_Request& request, brBufferManager::Job& job) {
    constexpr const char* function = "AddProcessFrameAsync";
    const std::shared_ptr<vdBRAW_Clip> clip = GetClip(request.m_clipId);
    if (!clip)
        return {E_FAIL, S_OK, "Impossible to Get Clip ..!", brErrorSubmission};
    vdStatus status;
    bool corrupted = false;
    {
        vdLock lock(clip->m_bmClipMutex, "brClip->m_bmClipMutex", function);
        if (!clip->m_bmClip || !clip->m_bmClipEx)
            return {E_FAIL, S_OK,
                    std::string("AddProcessFrameAsync - ") +
                        (request.m_bufferManager->m_isGPU ? "GPU" : "CPU") + " bmClip is nullptr",
                    brErrorSubmission};
        status = request.m_bufferManager->createReadJob(clip->m_bmClipEx.Get(), request.m_frameIndex, job,
                                                        corrupted);
    }
    if (status.failed) {
        VD_LOG_AS(vdLogLevel::error, function,
                  request.identity() << "Impossible to create Read Job : " << status.text());
        return {E_FAIL, S_OK, std::string(status.text()),
                corrupted ? brErrorCorruptedFrame : brErrorSubmission};
    }
    HRESULT hr = job->SetUserData(&request);
    if (FAILED(hr))
        return {hr, hr, "Failed SetUserData on Read Job", brErrorSubmission};
    VD_LOG_AS(vdLogLevel::info, function, request.identity() << "Submitting Job");
    request.m_jobTimer.start();
    hr = job->Submit();
    if (FAILED(hr))
        return {hr, S_OK, "Failed to Submit Read Job", brErrorSubmission};
    return {};
}

void vdBRAW_Manager::reserveQueueSlot() {
    vdLock lock(m_queueMutex, "QueueMutex");
    m_queue.reserve(m_queue.size() + ++m_reservedSlots);
}

void vdBRAW_Manager::enqueue(std::shared_ptr<vdBRAW_Request> request, const char* function) {
    vdLock lock(m_queueMutex, "QueueMutex", function);
    --m_reservedSlots;
    m_queue.push_back(std::move(request));
}

int vdBRAW_Manager::FindInQueue(const std::shared_ptr<vdBRAW_Request>& request,
                                std::shared_ptr<vdBRAW_Request>& requestOut, bool& stillProcessingOut) {
    stillProcessingOut = false;
    requestOut.reset();
    vdLock lock(m_queueMutex, "QueueMutex");
    int unread = 0;
    int undecoded = 0;
    int unfinished = 0;
    auto found = m_queue.end();
    for (auto entry = m_queue.begin(); entry != m_queue.end() && found == m_queue.end(); ++entry) {
        vdBRAW_Request& queued = **entry;
        if (!queued.m_readDone)
            ++unread;
        else if (!queued.m_processDone)
            ++undecoded;
        else if (!queued.m_isFinished)
            ++unfinished;
        vdLock requestLock(queued.m_mutex, "request->m_mutex");
        if (*entry == request) {
            found = entry;
            stillProcessingOut =
                !queued.m_isFinished && queued.m_isEnabled && queued.m_errorCode == brErrorNone;
            requestOut = *entry;
        }
    }
    const bool isFound = found != m_queue.end();
    VD_LOG_INFO(request->identity() << "RC " << unread << ", DPC " << undecoded << ", IPC " << unfinished
                                    << ", sz " << m_queue.size() << " Found: " << isFound
                                    << " foundButStillProcessing: " << stillProcessingOut);
    if (isFound && !stillProcessingOut) {
        const size_t before = m_queue.size();
        m_queue.erase(found);
        VD_LOG_INFO(request->identity() << "Removed Queue, sizes " << before << "," << m_queue.size());
    }
    return 0;
}

int vdBRAW_Manager::FlushQueue() {
    if (!m_codec)
        return 1;
    m_codec->FlushJobs();
    vdLock lock(m_queueMutex, "QueueMutex");
    const size_t before = m_queue.size();
    for (size_t index = before; index-- > 0;)
        if (finishedOrCancelled(*m_queue[index]))
            m_queue.erase(m_queue.begin() + static_cast<std::ptrdiff_t>(index));
    VD_LOG_INFO("Flushing Queue - size before/after :" << before << "/" << m_queue.size());
    return 0;
}

bool vdBRAW_Manager::finishedOrCancelled(vdBRAW_Request& request) {
    vdLock lock(request.m_mutex, "request->m_mutex", "FlushQueue");
    if (!request.m_isFinished) {
        VD_LOG_AS(vdLogLevel::error, "FlushQueue",
                  request.identity() << "Request not finished after FlushJobs!");
        request.m_isCancelled = true;
    }
    return request.m_isFinished;
}

int vdBRAW_Manager::ProcessFrameSync(std::shared_ptr<vdBRAW_Request> request) {
    if (!m_codec || request->m_errorCode != brErrorNone)
        return 1;
    AddProcessFrameAsync(request); // what it could not submit is queued with its error
    const HRESULT hr = m_codec->FlushJobs();
    if (FAILED(hr)) {
        VD_LOG_ERROR(request->identity() << "Impossible to Flush Jobs ! " << hresultText(hr));
        return 1;
    }
    std::shared_ptr<vdBRAW_Request> found;
    bool stillProcessing = false;
    FindInQueue(request, found, stillProcessing);
    if (found != request)
        VD_LOG_ERROR("In Request is not the same than out_request ! Impossible in Sync Mode");
    if (stillProcessing)
        VD_LOG_ERROR(request->identity() << "The Request is still processing after Jobs Flushed ..");
    return found ? 0 : 1;
}
