// The manager's queue: submission of requests, and their way out again.
#include "Manager.h"

#include <iterator>

#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"

namespace {
/// The log knows the queue as a part of the manager.
constexpr const char* sourceFile = "Manager.cpp";
} // namespace

#define QUEUE_LOG(level, functionName, message)                                                              \
    VD_LOG_FROM(vdLogLevel::level, sourceFile, functionName, message)

void vdBRAW_Manager::QueueSlot::fill(std::shared_ptr<vdBRAW_Request> request, const char* function) noexcept {
    m_room.front() = std::move(request);
    vdLock lock(m_manager.m_queueMutex, "QueueMutex", function, sourceFile);
    m_manager.m_queue.splice(m_manager.m_queue.end(), m_room);
}

int vdBRAW_Manager::AddProcessFrameAsync(std::shared_ptr<vdBRAW_Request> request) {
    if (!request)
        return 1;
    QueueSlot slot(*this);
    const bool read = request->m_isEnabled && request->m_errorCode == brErrorNone;
    request->m_isProcessing = read;
    request->m_isSubmitted = true;
    if (!read) {
        if (!request->m_isEnabled)
            if (const vdStatus delivered = request->onProcessComplete(); delivered.failed)
                request->failUnlocked(brErrorDelivery, S_OK, delivered.text());
        slot.fill(std::move(request), __func__);
        return 0;
    }
    brBufferManager::Job job; // given back after the request is queued
    const Submission submission = submitRead(*request, job);
    if (submission.result == S_OK) {
        job.Reset();
        slot.fill(std::move(request), __func__);
        return 0;
    }
    queueWithError(slot, std::move(request), submission);
    return submission.result;
}

void vdBRAW_Manager::queueWithError(QueueSlot& slot, std::shared_ptr<vdBRAW_Request> request,
                                    const Submission& failure) {
    request->failUnlocked(failure.code, failure.errorResult, failure.message);
    // The name under which the log has always known this step.
    slot.fill(std::move(request), "operator ()");
}

/// Buffers of a codec that has been replaced or released work with decoders and a device that are gone. Those
/// that nobody stamped are known by their resource manager.
bool vdBRAW_Manager::isOfThisCodec(const brBufferManager& buffers) const {
    if (!m_codec || m_errorInfo.failed)
        return false;
    return buffers.m_session ? buffers.m_session == m_session
                             : buffers.m_resourceManager.Get() == m_resourceManager.Get();
}

vdBRAW_Manager::Submission vdBRAW_Manager::submitRead(vdBRAW_Request& request, brBufferManager::Job& job) {
    constexpr const char* function = "AddProcessFrameAsync";
    const std::shared_ptr<vdBRAW_Clip> clip = GetClip(request.m_clipId);
    if (!clip)
        return {E_FAIL, S_OK, "Impossible to Get Clip ..!", brErrorSubmission};
    if (!request.m_bufferManager || !isOfThisCodec(*request.m_bufferManager))
        return {E_FAIL, S_OK, "The Request was not prepared for the current Codec", brErrorSubmission};
    request.m_bufferManager->m_session = m_session;
    vdStatus status;
    bool corrupted = false;
    {
        vdLock lock(clip->m_bmClipMutex, "brClip->m_bmClipMutex", function, sourceFile);
        if (!clip->m_bmClip || !clip->m_bmClipEx)
            return {E_FAIL, S_OK,
                    std::string("AddProcessFrameAsync - ") +
                        (request.m_bufferManager->m_isGPU ? "GPU" : "CPU") + " bmClip is nullptr",
                    brErrorSubmission};
        request.m_clipInUse = clip->m_bmClipEx;
        status = request.m_bufferManager->createReadJob(clip->m_bmClipEx.Get(), request.m_frameIndex, job,
                                                        corrupted);
    }
    if (status.failed) {
        QUEUE_LOG(error, function, request.identity() << "Impossible to create Read Job : " << status.text());
        return {E_FAIL, S_OK, std::string(status.text()),
                corrupted ? brErrorCorruptedFrame : brErrorSubmission};
    }
    HRESULT hr = job->SetUserData(&request);
    if (FAILED(hr))
        return {hr, hr, "Failed SetUserData on Read Job", brErrorSubmission};
    QUEUE_LOG(info, function, request.identity() << "Submitting Job");
    hr = m_session->callback()->submit(request, *job.Get());
    if (FAILED(hr))
        return {hr, S_OK, "Failed to Submit Read Job", brErrorSubmission};
    return {};
}

int vdBRAW_Manager::FindInQueue(const std::shared_ptr<vdBRAW_Request>& request,
                                std::shared_ptr<vdBRAW_Request>& requestOut, bool& stillProcessingOut) {
    stillProcessingOut = false;
    requestOut.reset();
    if (!request)
        return 0;
    vdLock lock(m_queueMutex, "QueueMutex", __func__, sourceFile);
    int unread = 0;
    int undecoded = 0;
    int unfinished = 0;
    auto found = m_queue.end();
    for (auto entry = m_queue.begin(); entry != m_queue.end() && found == m_queue.end(); ++entry) {
        vdBRAW_Request& queued = **entry;
        vdLock requestLock(queued.m_mutex, "request->m_mutex", __func__, sourceFile);
        if (!queued.m_readDone)
            ++unread;
        else if (!queued.m_processDone)
            ++undecoded;
        else if (!queued.m_isFinished)
            ++unfinished;
        if (*entry == request) {
            found = entry;
            stillProcessingOut =
                !queued.m_isFinished && queued.m_isEnabled && queued.m_errorCode == brErrorNone;
            requestOut = *entry;
        }
    }
    const bool isFound = found != m_queue.end();
    QUEUE_LOG(info, __func__,
              request->identity() << "RC " << unread << ", DPC " << undecoded << ", IPC " << unfinished
                                  << ", sz " << m_queue.size() << " Found: " << isFound
                                  << " foundButStillProcessing: " << stillProcessingOut);
    if (!isFound || stillProcessingOut)
        return 0;
    const size_t before = m_queue.size();
    m_queue.erase(found);
    QUEUE_LOG(info, __func__,
              request->identity() << "Removed Queue, sizes " << before << "," << m_queue.size());
    lock.unlock();
    request->giveBackClip();
    return 0;
}

int vdBRAW_Manager::FlushQueue() {
    if (!m_codec)
        return 1;
    m_codec->FlushJobs();
    Queue ended; // their buffers go after the lock
    vdLock lock(m_queueMutex, "QueueMutex", __func__, sourceFile);
    const size_t before = m_queue.size();
    for (auto next = m_queue.end(); next != m_queue.begin();) {
        const auto entry = std::prev(next);
        if (finishedOrCancelled(**entry, __func__))
            ended.splice(ended.end(), m_queue, entry);
        else
            next = entry;
    }
    QUEUE_LOG(info, __func__, "Flushing Queue - size before/after :" << before << "/" << m_queue.size());
    lock.unlock();
    for (const std::shared_ptr<vdBRAW_Request>& request : ended)
        request->giveBackClip();
    return 0;
}

void vdBRAW_Manager::cancelQueue(const char* function) {
    vdLock lock(m_queueMutex, "QueueMutex", function, sourceFile);
    for (const std::shared_ptr<vdBRAW_Request>& request : m_queue)
        finishedOrCancelled(*request, function);
}

bool vdBRAW_Manager::finishedOrCancelled(vdBRAW_Request& request, const char* function) {
    vdLock lock(request.m_mutex, "request->m_mutex", function, sourceFile);
    if (!request.m_isFinished) {
        QUEUE_LOG(error, function, request.identity() << "Request not finished after FlushJobs!");
        request.m_isCancelled = true;
    }
    return request.m_isFinished;
}

int vdBRAW_Manager::ProcessFrameSync(std::shared_ptr<vdBRAW_Request> request) {
    if (!m_codec || !request || request->m_errorCode != brErrorNone)
        return 1;
    AddProcessFrameAsync(request); // what it could not submit is queued with its error
    const HRESULT hr = m_codec->FlushJobs();
    if (FAILED(hr)) {
        QUEUE_LOG(error, __func__, request->identity() << "Impossible to Flush Jobs ! " << hresultText(hr));
        return 1;
    }
    std::shared_ptr<vdBRAW_Request> found;
    bool stillProcessing = false;
    FindInQueue(request, found, stillProcessing);
    if (found != request)
        QUEUE_LOG(error, __func__, "In Request is not the same than out_request ! Impossible in Sync Mode");
    if (stillProcessing)
        QUEUE_LOG(error, __func__,
                  request->identity() << "The Request is still processing after Jobs Flushed ..");
    return found ? 0 : 1;
}
