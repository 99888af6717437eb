#include "Callback.h"

#include <string>
#include <string_view>

#include "AttributesSetter.h"
#include "Request.h"
#include "Utils/vdGuard.h"
#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"

namespace {

/// How a stage left its request.
struct StageEnd {
    enum class Kind { submitted, finished, failed, endedByHook };
    Kind kind = Kind::submitted;
    uint32_t code = brErrorNone;
    HRESULT hr = S_OK;
    std::string message;
};

StageEnd failed(uint32_t code, HRESULT hr, std::string message) {
    return {StageEnd::Kind::failed, code, hr, std::move(message)};
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

void endRequest(vdBRAW_Request& request, vdLock<vdMutex>& lock) {
    request.m_isFinished = true;
    lock.unlock();
    request.notifyListener();
}

void fail(vdBRAW_Request& request, vdLock<vdMutex>& lock, uint32_t code, HRESULT hr,
          std::string_view message) {
    lock.handOver();
    request.failAndUnlock(code, hr, message);
}

/// The entry and the end that all completions share. `entered` notes under the lock that the job has come
/// back, `stage` does the completion's own work. A request that has already ended is left alone: its
/// failure came while this job was in flight.
template <class Entered, class Stage>
void complete(vdBRAW_Request& request, const Completion& completion, Entered&& entered, Stage&& stage) {
    vdLock lock(request.m_mutex, "request->m_mutex", completion.function);
    entered(request);
    VD_LOG_AS(vdLogLevel::info, completion.function,
              request.identity() << completion.label << " dt " << request.m_jobTimer.lapMicroseconds()
                                 << " us");
    if (request.m_isFinished)
        return;
    if (request.m_isCancelled) {
        VD_LOG_AS(vdLogLevel::info, completion.function, request.identity() << "Cancelled Request !");
        request.m_isFinished = true;
        request.onFinished();
        endRequest(request, lock);
        return;
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
}

/// The texts with which the chaining of a job can fail.
struct ChainTexts {
    std::string_view setUserData;
    std::string_view submit;
    std::string_view release;
};

/// Sends a request's next job on its way. The job's reference is given back whatever happens.
StageEnd submitNext(vdBRAW_Request& request, brBufferManager::Job job, uint32_t code,
                    const ChainTexts& texts) {
    HRESULT hr = job->SetUserData(&request);
    if (FAILED(hr))
        return failed(code, hr, std::string(texts.setUserData));
    request.m_jobTimer.start();
    request.m_isProcessing = true;
    hr = job->Submit();
    if (FAILED(hr)) {
        request.m_isProcessing = false;
        return failed(code, hr, std::string(texts.submit));
    }
    const auto released = static_cast<HRESULT>(job.Detach()->Release());
    if (FAILED(released))
        return failed(code, released, std::string(texts.release));
    return {};
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

StageEnd submitDecode(vdBRAW_Request& request, HRESULT hr) {
    brBufferManager::Job job;
    if (const vdStatus status = request.m_bufferManager->createDecodeJob(job); status.failed)
        return failed(brErrorDecode, hr, "Error createDecodeJob : ", status);
    return submitNext(request, std::move(job), brErrorDecode,
                      {"Impossible to Set UserData on decodeJob !", "Impossible to submit DecodeJob ! ",
                       "Impossible to Release decodeJob !"});
}

StageEnd readStage(vdBRAW_Request& request, HRESULT hr, IBlackmagicRawFrame* frame) {
    const int hooked = request.onFrameRead(frame);
    if (request.m_errorCode != brErrorNone)
        return {StageEnd::Kind::endedByHook};
    if (hooked == 1)
        return {StageEnd::Kind::finished};

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
    return submitDecode(request, hr);
}

StageEnd decodeStage(vdBRAW_Request& request, HRESULT result) {
    if (FAILED(result))
        return failed(brErrorDecode, result, "DecodeComplete called with error code - ");
    brBufferManager::Job job;
    const uint32_t code = processCode(request);
    if (const vdStatus status = request.m_bufferManager->createProcessJob(job); status.failed)
        return failed(code, S_OK, "Error CreateProcess Job : ", status);
    return submitNext(request, std::move(job), code,
                      {"Impossible to Set UserData on processJob ! ", "Impossible to Submit processJob ! ",
                       "Impossible to Release processJob ! "});
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

StageEnd processStage(vdBRAW_Request& request, HRESULT result, IBlackmagicRawProcessedImage* image) {
    if (FAILED(result))
        return failed(processCode(request), result, "ProcessComplete called with error code - ");
    if (!image)
        return failed(brErrorDelivery, result, "ProcessComplete called without an image");
    request.m_processedImage = image;
    StageEnd end = checkImage(request, *image);
    if (end.kind != StageEnd::Kind::failed) {
        const vdStatus delivered = request.onProcessComplete();
        if (delivered.failed)
            end = failed(brErrorDelivery, S_OK, std::string(delivered.text()));
        else
            end.kind = request.m_isFinished ? StageEnd::Kind::endedByHook : StageEnd::Kind::finished;
    }
    request.m_processedImage = nullptr; // the library's object ends with its callback
    return end;
}

brTrimContext* trimContextOf(IBlackmagicRawJob* job) {
    void* userData = nullptr;
    return SUCCEEDED(job->GetUserData(&userData)) ? static_cast<brTrimContext*>(userData) : nullptr;
}

} // namespace

void vdBRAW_Manager_Callback::ReadComplete(IBlackmagicRawJob* job, HRESULT result,
                                           IBlackmagicRawFrame* frame) {
    vdBRAW_Request* request = requestOf(job, readCompletion);
    if (!request)
        return;
    if (!frame) {
        request->HandleError(brErrorNoFrame, result, "ReadComplete called with error code - ", false);
        return;
    }
    complete(
        *request, readCompletion,
        [](vdBRAW_Request& r) {
            r.m_isProcessing = false;
            r.m_readDone = true;
        },
        [&](vdBRAW_Request& r) { return readStage(r, result, frame); });
}

void vdBRAW_Manager_Callback::DecodeComplete(IBlackmagicRawJob* job, HRESULT result) {
    VD_LOG_INFO("Callback DecodeComplete called");
    if (vdBRAW_Request* request = requestOf(job, decodeCompletion))
        complete(
            *request, decodeCompletion, [](vdBRAW_Request& r) { r.m_isProcessing = false; },
            [&](vdBRAW_Request& r) { return decodeStage(r, result); });
}

void vdBRAW_Manager_Callback::ProcessComplete(IBlackmagicRawJob* job, HRESULT result,
                                              IBlackmagicRawProcessedImage* processedImage) {
    if (vdBRAW_Request* request = requestOf(job, processCompletion))
        complete(
            *request, processCompletion, [](vdBRAW_Request&) {},
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
