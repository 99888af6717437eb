#include "Callback.h"

#include <string>
#include <string_view>

#include "AttributesSetter.h"
#include "Request.h"
#include "Utils/vdGuard.h"
#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"

namespace {

/// The texts with which the chaining of a job can fail.
struct ChainTexts {
    std::string_view setUserData;
    std::string_view submit;
    std::string_view release;
};

/// How a stage left its request.
struct StageEnd {
    enum class Kind { next, finished, failed, endedByHook };
    Kind kind = Kind::endedByHook;
    uint32_t code = brErrorNone; ///< of the failure, or of that of submitting the next job
    HRESULT hr = S_OK;
    std::string message;
    brBufferManager::Job job;          ///< the next one
    const ChainTexts* texts = nullptr; ///< the next job's
};

StageEnd failed(uint32_t code, HRESULT hr, std::string message) {
    return {.kind = StageEnd::Kind::failed, .code = code, .hr = hr, .message = std::move(message)};
}

StageEnd failed(uint32_t code, HRESULT hr, std::string_view message, const vdStatus& status) {
    return failed(code, hr, std::string(message) + std::string(status.text()));
}

/// One of the completions, as the log and the error codes know it.
struct Completion {
    const char* function;
    std::string_view label;
    uint32_t (*outOfMemoryCode)(const vdBRAW_Request&);
};

uint32_t processCode(const vdBRAW_Request& request) {
    return request.m_bufferManager->m_isGPU ? brErrorProcessGPU : brErrorProcessCPU;
}

constexpr Completion readCompletion = {"ReadComplete", "ReadComplete ",
                                       [](const vdBRAW_Request&) -> uint32_t { return brErrorRead; }};
constexpr Completion decodeCompletion = {"DecodeComplete", "DecodeComplete", processCode};
constexpr Completion processCompletion = {"ProcessComplete", "ProcessComplete ",
                                          [](const vdBRAW_Request&) -> uint32_t { return brErrorDelivery; }};

/// The request that a job carries; null, with a log line, when it carries none.
vdBRAW_Request* requestOf(IBlackmagicRawJob* job, const Completion& completion) {
    void* userData = nullptr;
    const HRESULT hr = job->GetUserData(&userData);
    if (SUCCEEDED(hr) && userData)
        return static_cast<vdBRAW_Request*>(userData);
    VD_LOG_AS(vdLogLevel::error, completion.function, "Impossible to get UserData - " << hresultText(hr));
    return nullptr;
}

/// A job has come back. Counted when its completion returns: until then it may use all that a job may.
class JobReturn {
public:
    explicit JobReturn(std::atomic<int32_t>& jobsInFlight) : m_jobsInFlight(jobsInFlight) {}
    ~JobReturn() { --m_jobsInFlight; }
    JobReturn(const JobReturn&) = delete;
    JobReturn& operator=(const JobReturn&) = delete;

private:
    std::atomic<int32_t>& m_jobsInFlight;
};

void endRequest(vdBRAW_Request& request, vdLock<vdMutex>& lock) {
    request.m_isFinished = true;
    lock.unlock();
    request.notifyListener();
}

/// Unless it has ended meanwhile: a request ends once.
void fail(vdBRAW_Request& request, vdLock<vdMutex>& lock, uint32_t code, HRESULT hr,
          std::string_view message) {
    if (request.m_isFinished)
        return;
    lock.handOver();
    request.failAndUnlock(code, hr, message);
}

/// The work of a completion under its request's lock. What is left to do without it is in the result: a job
/// to be submitted.
template <class Entered, class Stage>
StageEnd workLocked(vdBRAW_Request& request, vdLock<vdMutex>& lock, const Completion& completion,
                    Entered&& entered, Stage&& stage) {
    entered(request);
    VD_LOG_AS(vdLogLevel::info, completion.function,
              request.identity() << completion.label << " dt " << request.m_jobTimer.lapMicroseconds()
                                 << " us");
    if (request.m_isFinished)
        return {};
    if (request.m_isCancelled) {
        VD_LOG_AS(vdLogLevel::info, completion.function, request.identity() << "Cancelled Request !");
        request.m_isFinished = true;
        request.onFinished();
        endRequest(request, lock);
        return {};
    }
    StageEnd end;
    const HRESULT guarded = guardBoundary([&] {
        end = stage(request);
        return S_OK;
    });
    if (FAILED(guarded))
        fail(request, lock, completion.outOfMemoryCode(request), guarded, "Completion interrupted - ");
    else if (end.kind == StageEnd::Kind::failed)
        fail(request, lock, end.code, end.hr, end.message);
    else if (end.kind == StageEnd::Kind::finished)
        endRequest(request, lock);
    else
        return end;
    return {};
}

/// Without the request's lock: a library may run the job, or wait for it, before it returns.
void submitNext(vdBRAW_Manager_Callback& callback, vdBRAW_Request& request, const Completion& completion,
                StageEnd&& end) {
    std::string_view message = end.texts->submit;
    HRESULT hr = callback.submit(request, *end.job.Get());
    if (SUCCEEDED(hr)) {
        hr = static_cast<HRESULT>(end.job.Detach()->Release());
        message = end.texts->release;
    }
    if (FAILED(hr)) {
        vdLock lock(request.m_mutex, "request->m_mutex", completion.function);
        fail(request, lock, end.code, hr, message);
    }
}

/// The entry and the end that all completions share. `entered` notes under the lock that the job has come
/// back, `stage` does the completion's own work. A request that has already ended is left alone: its
/// failure came while this job was in flight.
template <class Entered, class Stage>
void complete(vdBRAW_Manager_Callback& callback, IBlackmagicRawJob* job, const Completion& completion,
              Entered&& entered, Stage&& stage) {
    vdBRAW_Request* const carried = requestOf(job, completion);
    if (!carried)
        return;
    std::shared_ptr<vdBRAW_Request> request; // the last reference, when a poller drops its own meanwhile
    StageEnd end;
    {
        vdLock lock(carried->m_mutex, "request->m_mutex", completion.function);
        request = std::move(carried->m_keptByJob);
        if (!request)
            request = carried->weak_from_this().lock();
        end = workLocked(*carried, lock, completion, entered, stage);
    }
    if (end.kind == StageEnd::Kind::next)
        submitNext(callback, *carried, completion, std::move(end));
}

/// The request's next job, ready to be submitted.
StageEnd chain(vdBRAW_Request& request, brBufferManager::Job job, uint32_t code, const ChainTexts& texts) {
    const HRESULT hr = job->SetUserData(&request);
    if (FAILED(hr))
        return failed(code, hr, std::string(texts.setUserData));
    return {.kind = StageEnd::Kind::next, .code = code, .job = std::move(job), .texts = &texts};
}

StageEnd fillFrameState(vdBRAW_Request& request, IBlackmagicRawFrame* frame, HRESULT hr,
                        IBlackmagicRawFrameProcessingAttributes* frameAttributes) {
    const vdStatus status = request.m_bufferManager->populateFrameStateBuffer(
        frame, frameAttributes ? request.m_clipProcessingAttributes.Get() : nullptr, frameAttributes);
    return status.failed ? failed(brErrorRead, hr, "Error populateFrameStateBuffer : ", status) : StageEnd();
}

/// The same with the request's own frame settings.
StageEnd fillFrameStateWithSettings(vdBRAW_Request& request, IBlackmagicRawFrame* frame) {
    Microsoft::WRL::ComPtr<IBlackmagicRawFrameProcessingAttributes> attributes;
    const HRESULT hr = frame->CloneFrameProcessingAttributes(&attributes);
    if (FAILED(hr) || !attributes)
        return failed(brErrorRead, hr, "Failed CloneFrameProcessingAttributes on Frame ! ");
    if (const vdStatus status = applyFrameSettings(attributes.Get(), request.m_frameSettings); status.failed)
        return failed(brErrorProcessingAttributes, hr, "", status);
    StageEnd end = fillFrameState(request, frame, hr, attributes.Get());
    const auto released = static_cast<HRESULT>(attributes.Detach()->Release());
    if (FAILED(released))
        return failed(brErrorRead, released, "Impossible to Release FrameProcessingAttributes ! ");
    return end;
}

constexpr ChainTexts decodeTexts = {"Impossible to Set UserData on decodeJob !",
                                    "Impossible to submit DecodeJob ! ", "Impossible to Release decodeJob !"};
constexpr ChainTexts processTexts = {"Impossible to Set UserData on processJob ! ",
                                     "Impossible to Submit processJob ! ",
                                     "Impossible to Release processJob ! "};

StageEnd chainDecode(vdBRAW_Request& request, HRESULT hr) {
    brBufferManager::Job job;
    if (const vdStatus status = request.m_bufferManager->createDecodeJob(job); status.failed)
        return failed(brErrorDecode, hr, "Error createDecodeJob : ", status);
    return chain(request, std::move(job), brErrorDecode, decodeTexts);
}

StageEnd readStage(vdBRAW_Request& request, HRESULT hr, IBlackmagicRawFrame* frame) {
    if (!frame)
        return failed(brErrorNoFrame, hr, "ReadComplete called with error code - ");
    const int hooked = request.onFrameRead(frame);
    if (request.m_errorCode != brErrorNone)
        return {};
    if (hooked == 1)
        return {.kind = StageEnd::Kind::finished};

    // A failed read shows here: nothing is set on its frame.
    if (hr == S_OK && request.m_resourceFormat != 0)
        hr = frame->SetResourceFormat(request.m_resourceFormat);
    if (FAILED(hr))
        return failed(brErrorRead, hr, "Failed SetResourceFormat on Frame ! ");
    if (hr == S_OK && request.m_resolutionScale != 0)
        hr = frame->SetResolutionScale(request.m_resolutionScale);
    if (FAILED(hr))
        return failed(brErrorRead, hr, "Failed SetResolutionScale on Frame ! ");

    StageEnd end = request.m_hasCustomSettings ? fillFrameStateWithSettings(request, frame)
                                               : fillFrameState(request, frame, hr, nullptr);
    if (end.kind == StageEnd::Kind::failed)
        return end;
    return chainDecode(request, hr);
}

StageEnd decodeStage(vdBRAW_Request& request, HRESULT result) {
    if (FAILED(result))
        return failed(brErrorDecode, result, "DecodeComplete called with error code - ");
    brBufferManager::Job job;
    const uint32_t code = processCode(request);
    if (const vdStatus status = request.m_bufferManager->createProcessJob(job); status.failed)
        return failed(code, S_OK, "Error CreateProcess Job : ", status);
    return chain(request, std::move(job), code, processTexts);
}

/// Compares what the library made with what was asked of it, and takes its measures.
StageEnd checkImage(vdBRAW_Request& request, IBlackmagicRawProcessedImage& image) {
    BlackmagicRawResourceType type = 0;
    HRESULT hr = image.GetResourceType(&type);
    if (FAILED(hr))
        return failed(brErrorDelivery, hr, "Impossible to GetResourceType ! ");
    // The buffers are given back by the type they were made with, so another one is never taken over.
    if (type != request.m_bufferManager->m_resourceType)
        return failed(brErrorDelivery, hr, "Final Resource Type is not the same than requested one !");
    BlackmagicRawResourceFormat format = 0;
    hr = image.GetResourceFormat(&format);
    if (FAILED(hr))
        return failed(brErrorDelivery, hr, "Failed GetResourceFormat - ");
    if (format != request.m_resourceFormat)
        return failed(brErrorDelivery, hr, "Final Format is not the same than requested one !");
    hr = image.GetWidth(&request.m_processedWidth);
    if (FAILED(hr))
        return failed(brErrorDelivery, hr, "Failed GetWidth - ");
    hr = image.GetHeight(&request.m_processedHeight);
    if (FAILED(hr))
        return failed(brErrorDelivery, hr, "Failed GetHeight - ");
    uint32_t sizeBytes = 0;
    hr = image.GetResourceSizeBytes(&sizeBytes);
    if (FAILED(hr))
        return failed(brErrorDelivery, hr, "Failed GetResourceSizeBytes - ");
    request.m_bufferManager->setProcessedImageSize(sizeBytes);
    const uint64_t expected =
        uint64_t{request.m_resourceBytesPerPixel} * request.m_processedHeight * request.m_processedWidth;
    if (expected > sizeBytes)
        VD_LOG_AS(vdLogLevel::error, processCompletion.function,
                  request.identity() << "expectedFrameBufferSize " << expected << " and got " << sizeBytes);
    return {};
}

/// The request knows the library's image for as long as this lives: it ends with its callback.
struct ImageLoan {
    ImageLoan(vdBRAW_Request& request, IBlackmagicRawProcessedImage& image) : m_request(request) {
        m_request.m_processedImage = &image;
    }
    ~ImageLoan() { m_request.m_processedImage = nullptr; }
    ImageLoan(const ImageLoan&) = delete;
    ImageLoan& operator=(const ImageLoan&) = delete;

private:
    vdBRAW_Request& m_request;
};

StageEnd processStage(vdBRAW_Request& request, HRESULT result, IBlackmagicRawProcessedImage* image) {
    if (FAILED(result))
        return failed(processCode(request), result, "ProcessComplete called with error code - ");
    if (!image)
        return failed(brErrorDelivery, result, "ProcessComplete called without an image");
    const ImageLoan loan(request, *image);
    StageEnd end = checkImage(request, *image);
    if (end.kind != StageEnd::Kind::failed) {
        const vdStatus delivered = request.onProcessComplete();
        if (delivered.failed)
            end = failed(brErrorDelivery, S_OK, std::string(delivered.text()));
        else
            end.kind = request.m_isFinished ? StageEnd::Kind::endedByHook : StageEnd::Kind::finished;
    }
    return end;
}

brTrimContext* trimContextOf(IBlackmagicRawJob* job) {
    void* userData = nullptr;
    return SUCCEEDED(job->GetUserData(&userData)) ? static_cast<brTrimContext*>(userData) : nullptr;
}

} // namespace

HRESULT vdBRAW_Manager_Callback::QueryInterface(REFIID identifier, void** result) {
    if (!result)
        return E_POINTER;
    *result = nullptr;
    if (identifier != __uuidof(IUnknown) && identifier != __uuidof(IBlackmagicRawCallback))
        return E_NOTIMPL;
    *result = static_cast<IBlackmagicRawCallback*>(this);
    AddRef();
    return S_OK;
}

ULONG vdBRAW_Manager_Callback::Release() {
    const ULONG left = --m_references;
    if (left == 0)
        delete this;
    return left;
}

HRESULT vdBRAW_Manager_Callback::submit(vdBRAW_Request& request, IBlackmagicRawJob& job) noexcept {
    {
        vdLock lock(request.m_mutex, "request->m_mutex");
        request.m_keptByJob = request.weak_from_this().lock();
        request.m_isProcessing = true;
        request.m_jobTimer.start();
    }
    ++m_jobsInFlight;
    const HRESULT hr = job.Submit();
    if (FAILED(hr)) {
        std::shared_ptr<vdBRAW_Request> kept; // goes after the lock
        vdLock lock(request.m_mutex, "request->m_mutex");
        kept = std::move(request.m_keptByJob);
        request.m_isProcessing = false;
        --m_jobsInFlight;
    }
    return hr;
}

void vdBRAW_Manager_Callback::ReadComplete(IBlackmagicRawJob* job, HRESULT result,
                                           IBlackmagicRawFrame* frame) {
    const JobReturn returned(m_jobsInFlight);
    complete(
        *this, job, readCompletion,
        [](vdBRAW_Request& r) {
            r.m_isProcessing = false;
            r.m_readDone = true;
        },
        [&](vdBRAW_Request& r) { return readStage(r, result, frame); });
}

void vdBRAW_Manager_Callback::DecodeComplete(IBlackmagicRawJob* job, HRESULT result) {
    const JobReturn returned(m_jobsInFlight);
    VD_LOG_INFO("Callback DecodeComplete called");
    complete(
        *this, job, decodeCompletion, [](vdBRAW_Request& r) { r.m_isProcessing = false; },
        [&](vdBRAW_Request& r) { return decodeStage(r, result); });
}

void vdBRAW_Manager_Callback::ProcessComplete(IBlackmagicRawJob* job, HRESULT result,
                                              IBlackmagicRawProcessedImage* processedImage) {
    const JobReturn returned(m_jobsInFlight);
    complete(
        *this, job, processCompletion, [](vdBRAW_Request&) {},
        [&](vdBRAW_Request& r) {
            r.m_isProcessing = false;
            r.m_processDone = true;
            r.m_processedWidth = 0;
            r.m_processedHeight = 0;
            return processStage(r, result, processedImage);
        });
}

void vdBRAW_Manager_Callback::TrimProgress(IBlackmagicRawJob* job, float progress) {
    VD_LOG_INFO("Callback TrimProgress called with progress " << progress);
    guardBoundary([&] {
        const brTrimContext* context = trimContextOf(job);
        if (context && context->progress)
            context->progress(progress * 100.0f);
        return S_OK;
    });
}

void vdBRAW_Manager_Callback::TrimComplete(IBlackmagicRawJob* job, HRESULT result) {
    VD_LOG_INFO("Callback TrimComplete called");
    if (brTrimContext* context = trimContextOf(job))
        context->result = result;
    job->Release();
}
