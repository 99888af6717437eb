#include "brBufferManager.h"

#include <algorithm>
#include <utility>

#include "CudaRuntime.h"
#include "Failure.h"
#include "Utils/vdLogging.h"
#include "Utils/vdResult.h"

namespace {

/// A size of 0 is no size to make a buffer of: it counts as a failed query. `size` is a reference, since the
/// query that fills it stands in the same call.
HRESULT usableSize(HRESULT hr, const uint32_t& size) {
    return SUCCEEDED(hr) && size == 0 ? E_UNEXPECTED : hr;
}

/// A job that was not handed out counts as a failed creation, whatever the library said.
vdStatus jobStatus(HRESULT hr, brBufferManager::Job& job, std::string_view message) {
    if (SUCCEEDED(hr) && job)
        return {};
    job.Reset();
    return failure(message, SUCCEEDED(hr) ? E_UNEXPECTED : hr);
}

} // namespace

brBufferManager::brBufferManager(IBlackmagicRawResourceManager* resourceManager,
                                 IBlackmagicRawManualDecoderFlow1* manualDecoderCPU,
                                 IBlackmagicRawManualDecoderFlow2* manualDecoderGPU,
                                 BlackmagicRawResourceType resourceType, void* context, void* commandQueue)
    : m_resourceManager(resourceManager), m_manualDecoderCPU(manualDecoderCPU),
      m_manualDecoderGPU(manualDecoderGPU), m_context(context), m_commandQueue(commandQueue),
      m_isGPU(resourceType != blackmagicRawResourceTypeBufferCPU), m_resourceType(resourceType) {
    if (m_isGPU && !m_manualDecoderGPU) {
        VD_LOG_WARN("No GPU decoder ! Fallback to CPU");
        useCPU();
    } else if (m_resourceType == blackmagicRawResourceTypeBufferCUDA) {
        size_t freeBytes = 0;
        size_t totalBytes = 0;
        cudaDeviceMemory(freeBytes, totalBytes);
        VD_LOG_INFO("brBufferManager called with GPU - FreeSize : " << freeBytes
                                                                    << " - TotalSize : " << totalBytes);
        if (freeBytes == 0) {
            VD_LOG_WARN("FreeSize too low ! Fallback to CPU");
            useCPU();
        }
    }
    const auto side = m_isGPU ? brBuffer::Side::device : brBuffer::Side::host;
    m_decodedBufferGPU.side = m_workingBuffer.side = m_processedBuffer.side = side;
}

void brBufferManager::useCPU() {
    m_isGPU = false;
    m_context = nullptr;
    m_commandQueue = nullptr;
    m_resourceType = blackmagicRawResourceTypeBufferCPU;
}

brBufferManager::~brBufferManager() {
    releaseAtEnd(m_bitStream, "m_bitStream");
    releaseAtEnd(m_frameState, "m_frameState");
    releaseAtEnd(m_decodedBufferCPU, "m_decodedBufferCPU");
    releaseAtEnd(m_decodedBufferGPU, "m_decodedBufferGPU");
    releaseAtEnd(m_workingBuffer, "m_workingBuffer");
    if (m_ownsProcessedBuffer && m_processedBuffer.resource) {
        VD_LOG_INFO(m_identity << " - Releasing Processed Buffer");
        releaseAtEnd(m_processedBuffer, "m_processedBuffer");
    }
}

void brBufferManager::releaseAtEnd(brBuffer& buffer, std::string_view name) noexcept {
    const HRESULT hr = releaseResource(buffer);
    if (FAILED(hr))
        VD_LOG_AS(vdLogLevel::error, "~brBufferManager",
                  m_identity << "Impossible to release Resource : " << name << " : " << hresultText(hr));
}

HRESULT brBufferManager::releaseResource(brBuffer& buffer) const noexcept {
    if (!buffer.resource)
        return S_OK;
    const bool onHost = buffer.side == brBuffer::Side::host;
    const HRESULT hr = m_resourceManager->ReleaseResource(
        onHost ? nullptr : m_context, onHost ? nullptr : m_commandQueue, buffer.resource,
        onHost ? blackmagicRawResourceTypeBufferCPU : m_resourceType);
    if (SUCCEEDED(hr)) {
        buffer.resource = nullptr;
        buffer.capacity = 0;
    }
    return hr;
}

vdStatus brBufferManager::releaseBuffer(brBuffer& buffer, std::string_view failed) {
    const HRESULT hr = releaseResource(buffer);
    return FAILED(hr) ? failure(failed, hr) : vdStatus();
}

vdStatus brBufferManager::createBuffer(brBuffer& buffer, uint32_t sizeBytes, BlackmagicRawResourceUsage usage,
                                       std::string_view failed) const {
    const bool onHost = buffer.side == brBuffer::Side::host;
    void* resource = nullptr;
    const HRESULT hr = m_resourceManager->CreateResource(
        onHost ? nullptr : m_context, onHost ? nullptr : m_commandQueue, sizeBytes,
        onHost ? blackmagicRawResourceTypeBufferCPU : m_resourceType,
        onHost ? blackmagicRawResourceUsageReadCPUWriteCPU : usage, &resource);
    if (FAILED(hr) || !resource)
        return failure(failed, FAILED(hr) ? hr : E_OUTOFMEMORY);
    buffer.resource = resource;
    buffer.capacity = sizeBytes;
    return {};
}

vdStatus brBufferManager::grow(brBuffer& buffer, uint32_t neededBytes, BlackmagicRawResourceUsage usage,
                               const GrowTexts& texts) {
    if (neededBytes <= buffer.capacity)
        return {};
    VD_LOG_AS(vdLogLevel::info, texts.operation, m_identity << texts.allocating << buffer.capacity);
    const vdStatus released = releaseBuffer(buffer, texts.releaseFailed);
    return released.failed ? released : createBuffer(buffer, neededBytes, usage, texts.createFailed);
}

vdStatus brBufferManager::growDecoded(uint32_t neededBytes) {
    brBuffer& host = m_decodedBufferCPU;
    brBuffer& device = m_decodedBufferGPU;
    const uint32_t capacity = m_isGPU ? std::min(host.capacity, device.capacity) : host.capacity;
    if (neededBytes <= capacity)
        return {};
    VD_LOG_AS(vdLogLevel::info, "createDecodeJob",
              m_identity << " - Allocating New Buffer for m_decodedBuffer - PreviousSize : " << capacity);
    vdStatus status = releaseBuffer(host, "Failed Releasing CPU Resource ");
    if (!status.failed && m_isGPU) {
        VD_LOG_AS(vdLogLevel::info, "createDecodeJob",
                  m_identity << " - Allocating New Buffer for m_decodedBufferGPU too");
        status = releaseBuffer(device, "Failed Releasing GPU Resource ");
    }
    if (!status.failed)
        status = createBuffer(host, neededBytes, blackmagicRawResourceUsageReadCPUWriteCPU,
                              "Failed Creating CPU Resource ");
    if (!status.failed && m_isGPU)
        status = createBuffer(device, neededBytes, blackmagicRawResourceUsageReadGPUWriteCPU,
                              "Failed Creating GPU Resource ");
    return status;
}

vdStatus brBufferManager::populateFrameStateBuffer(IBlackmagicRawFrame* frame,
                                                   IBlackmagicRawClipProcessingAttributes* clipAttributes,
                                                   IBlackmagicRawFrameProcessingAttributes* frameAttributes) {
    return withDecoder([&](auto* decoder) -> vdStatus {
        uint32_t size = 0;
        HRESULT hr = usableSize(decoder->GetFrameStateSizeBytes(&size), size);
        if (FAILED(hr))
            return failure(
                m_isGPU ? "Failed GPU GetFrameStateSizeBytes " : "Failed CPU GetFrameStateSizeBytes ", hr);
        VD_LOG_AS(vdLogLevel::info, "populateFrameStateBuffer",
                  m_identity << " - frameStateSizeBytes : " << size);
        const vdStatus status =
            grow(m_frameState, size, blackmagicRawResourceUsageReadCPUWriteCPU,
                 {"populateFrameStateBuffer", " - Allocating New Buffer for m_frameState - Previous Size : ",
                  "Failed Releasing CPU Resource FrameState ", "Failed Creating CPU Resource FrameState "});
        if (status.failed)
            return status;
        hr = decoder->PopulateFrameStateBuffer(frame, clipAttributes, frameAttributes, m_frameState.resource,
                                               size);
        return FAILED(hr) ? failure("Failed Populating FrameState Buffer ", hr) : vdStatus();
    });
}

vdStatus brBufferManager::createReadJob(IBlackmagicRawClipEx* clip, uint64_t frameIndex, Job& job,
                                        bool& corrupted) {
    corrupted = false;
    uint32_t size = 0;
    HRESULT hr = usableSize(clip->GetBitStreamSizeBytes(frameIndex, &size), size);
    if (FAILED(hr)) {
        corrupted = true;
        // "Unspecified error" would tell the user nothing.
        const std::string reason = hresultText(hr);
        return vdFailure("Frame seems to be corrupted" +
                         (reason == hresultText(E_FAIL) ? std::string() : " - " + reason));
    }
    VD_LOG_INFO(m_identity << " - bitStreamSizeBytes : " << size);
    const vdStatus status =
        grow(m_bitStream, size, blackmagicRawResourceUsageReadCPUWriteCPU,
             {"createReadJob", " - Allocating New Buffer for m_bitStream - Previous Size : ",
              "Impossible to Release current BitStream Resource - ",
              "Impossible to Create BitStream Resource - "});
    if (status.failed)
        return status;
    hr = clip->CreateJobReadFrame(frameIndex, m_bitStream.resource, size, job.ReleaseAndGetAddressOf());
    return jobStatus(hr, job, "Impossible to Create Job Read Frame - ");
}

vdStatus brBufferManager::createDecodeJob(Job& job) {
    return withDecoder([&](auto* decoder) -> vdStatus {
        uint32_t size = 0;
        HRESULT hr = usableSize(decoder->GetDecodedSizeBytes(m_frameState.resource, &size), size);
        if (FAILED(hr))
            return failure("Failed GetDecodedSizeBytes ", hr);
        VD_LOG_AS(vdLogLevel::info, "createDecodeJob", m_identity << " - decodedBufferSizeBytes : " << size);
        if (const vdStatus status = growDecoded(size); status.failed)
            return status;
        hr = decoder->CreateJobDecode(m_frameState.resource, m_bitStream.resource,
                                      m_decodedBufferCPU.resource, job.ReleaseAndGetAddressOf());
        return jobStatus(hr, job, "Failed Created Job Decode ");
    });
}

vdStatus brBufferManager::createProcessJob(Job& job) {
    return m_isGPU ? createProcessJobGPU(job) : createProcessJobCPU(job);
}

vdStatus brBufferManager::createProcessJobGPU(Job& job) {
    uint32_t processedSize = 0;
    uint32_t workingSize = 0;
    uint32_t decodedSize = 0;
    void* const frameState = m_frameState.resource;
    HRESULT hr =
        usableSize(m_manualDecoderGPU->GetProcessedSizeBytes(frameState, &processedSize), processedSize);
    if (FAILED(hr))
        return failure("Failed GPU GetProcessedSizeBytes ", hr);
    hr = m_manualDecoderGPU->GetWorkingSizeBytes(frameState, &workingSize); // a pipeline may need none
    if (FAILED(hr))
        return failure("Failed GPU GetWorkingSizeBytes ", hr);

    VD_LOG_AS(vdLogLevel::info, "createProcessJob",
              m_identity << " - GPU workingBufferSizeBytes : " << workingSize);
    vdStatus status =
        grow(m_workingBuffer, workingSize, blackmagicRawResourceUsageReadGPUWriteGPU,
             {"createProcessJob", " - Allocating New GPU Buffer for m_workingBuffer - Previous Size : ",
              "Failed Releasing GPU WorkingBuffer Resource ", "Failed Creating GPU WorkingBuffer Resource "});
    if (status.failed)
        return status;
    VD_LOG_AS(vdLogLevel::info, "createProcessJob",
              m_identity << " - GPU processedBufferSizeBytes : " << processedSize);
    status = growProcessed(
        processedSize,
        {"createProcessJob", " - Allocating New GPU Buffer for m_processedBuffer - Previous Size : ",
         "Failed Releasing GPU ProcessedBuffer Resource ", "Failed Creating GPU ProcessedBuffer Resource "});
    if (status.failed)
        return status;

    hr = usableSize(m_manualDecoderGPU->GetDecodedSizeBytes(frameState, &decodedSize), decodedSize);
    if (FAILED(hr))
        return failure("Failed GPU GetDecodedSizeBytes ", hr);
    const uint32_t held = std::min(m_decodedBufferCPU.capacity, m_decodedBufferGPU.capacity);
    hr = m_resourceManager->CopyResource(m_context, m_commandQueue, m_decodedBufferCPU.resource,
                                         blackmagicRawResourceTypeBufferCPU, m_decodedBufferGPU.resource,
                                         m_resourceType, std::min(decodedSize, held), TRUE);
    if (FAILED(hr))
        return failure("Failed Copying DecodedBuffer Resource from CPU to GPU ", hr);
    hr = m_manualDecoderGPU->CreateJobProcess(
        m_context, m_commandQueue, frameState, m_decodedBufferGPU.resource, m_workingBuffer.resource,
        m_processedBuffer.resource, m_post3DLUTGPU, job.ReleaseAndGetAddressOf());
    return jobStatus(hr, job, "Failed Creating GPU Process Job ");
}

vdStatus brBufferManager::createProcessJobCPU(Job& job) {
    uint32_t size = 0;
    HRESULT hr = usableSize(m_manualDecoderCPU->GetProcessedSizeBytes(m_frameState.resource, &size), size);
    if (FAILED(hr))
        return failure("Failed GetProcessedSizeBytes ", hr);
    VD_LOG_AS(vdLogLevel::info, "createProcessJob",
              m_identity << " - CPU processedBufferSizeBytes : " << size);
    const uint32_t callersSize = m_ownsProcessedBuffer ? 0 : m_processedBuffer.capacity;
    const vdStatus status = growProcessed(
        size,
        {"createProcessJob", " - Allocating New CPU Buffer for m_processedBuffer - Previous Size : ",
         "Failed Releasing CPU ProcessedBuffer Resource ", "Failed Creating CPU ProcessedBuffer Resource "});
    if (status.failed)
        return status;
    if (m_ownsProcessedBuffer && callersSize != 0)
        VD_LOG_AS(vdLogLevel::warn, "createProcessJob",
                  m_identity << " - Allocated CPU Buffer was size : " << callersSize
                             << " But needed size is : " << size);
    hr = m_manualDecoderCPU->CreateJobProcess(m_frameState.resource, m_decodedBufferCPU.resource,
                                              m_processedBuffer.resource, m_post3DLUTCPU,
                                              job.ReleaseAndGetAddressOf());
    return jobStatus(hr, job, "Failed Creating CPU Process Job");
}

vdStatus brBufferManager::growProcessed(uint32_t neededBytes, const GrowTexts& texts) {
    if (neededBytes > m_processedBuffer.capacity && !std::exchange(m_ownsProcessedBuffer, true)) {
        // The caller's memory is too small: it is left alone, and the image lands in a buffer of our own.
        VD_LOG_AS(vdLogLevel::info, texts.operation,
                  m_identity << texts.allocating << m_processedBuffer.capacity);
        m_processedBuffer.resource = nullptr;
        m_processedBuffer.capacity = 0;
        return createBuffer(m_processedBuffer, neededBytes, blackmagicRawResourceUsageReadGPUWriteGPU,
                            texts.createFailed);
    }
    return grow(m_processedBuffer, neededBytes, blackmagicRawResourceUsageReadGPUWriteGPU, texts);
}

void brBufferManager::setAllocatedProcessedBuffer(void* buffer, uint32_t sizeBytes) {
    VD_LOG_INFO(m_identity << " - Processed Buffer should not be released");
    m_processedBuffer.resource = buffer;
    m_processedBuffer.capacity = sizeBytes;
    m_ownsProcessedBuffer = false;
}

void brBufferManager::setProcessedImageSize(uint32_t sizeBytes) {
    m_processedBuffer.capacity = std::min(m_processedBuffer.capacity, sizeBytes);
}

vdStatus
brBufferManager::fillLut3DBuffersFromClipProcessing(IBlackmagicRawClipProcessingAttributes* clipAttributes) {
    if (!clipAttributes)
        return vdFailure("Impossible to get Post3DLUT if clipAttrs is nullptr");
    Microsoft::WRL::ComPtr<IBlackmagicRawPost3DLUT> lut;
    HRESULT hr = clipAttributes->GetPost3DLUT(&lut);
    if (FAILED(hr))
        return failure("Failed Getting Post3DLUT ", hr);
    if (!lut)
        return {};
    void* device = nullptr;
    void* host = nullptr;
    if (m_isGPU && m_commandQueue) {
        BlackmagicRawResourceType type = m_resourceType;
        hr = lut->GetResourceGPU(m_context, m_commandQueue, &type, &device);
        if (FAILED(hr))
            return failure("Failed Getting GPU Resource ", hr);
        if (type != m_resourceType)
            VD_LOG_ERROR(
                m_identity << "Error : Post3D Lut Resource Type is different than Request resource Type");
    }
    hr = lut->GetResourceCPU(&host);
    if (FAILED(hr))
        return failure("Failed Getting CPU Resource ", hr);
    m_post3DLUTGPU = device;
    m_post3DLUTCPU = host;
    m_post3DLUT = std::move(lut);
    return {};
}

vdStatus brBufferManager::getProcessedBufferOnHost(void*& host, uint64_t hostSizeBytes) const {
    if (!m_isGPU) {
        host = m_processedBuffer.resource;
        return {};
    }
    if (m_resourceType != blackmagicRawResourceTypeBufferCUDA)
        return vdFailure("Not Implemented");
    const auto size = static_cast<size_t>(std::min<uint64_t>(m_processedBuffer.capacity, hostSizeBytes));
    const int error = cudaCopy(host, m_processedBuffer.resource, size, cudaCopyKind::byAddress);
    if (error != 0)
        return vdFailure("CudaMemcpy function returned CUDA error " + std::to_string(error));
    return {};
}
