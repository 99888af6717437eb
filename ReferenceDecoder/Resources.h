// Memory that the library gives out: host buffers, and "device" buffers that only its GPU pipeline and
// CopyResource may be given. Device memory lies in host memory, so that a CUDA runtime's stand-in can copy
// it.
#pragma once

#include "Object.h"

namespace reference {

/// The GPU pipeline's context and command queue, both opaque.
void* gpuContext();
void* gpuCommandQueue();

/// What is for the GPU alone is never copied to from the host.
HRESULT createResource(uint64_t bytes, BlackmagicRawResourceType type, void** resource,
                       bool isForGpuAlone = false);
HRESULT releaseResource(void* resource, BlackmagicRawResourceType type);

/// How much larger than its contents every buffer must be.
uint32_t spareBytes();
/// Writes to a buffer's spare bytes, which begin at `end`.
void fillSpare(void* buffer, uint64_t end, uint32_t spare);

/// Whether `buffer` can take the bytes as the given kind of memory. Host memory may be the caller's own,
/// about which nothing is known; device memory must be a resource.
bool fitsBuffer(const void* buffer, uint64_t bytes, BlackmagicRawResourceType type);

class ResourceManager : public Object<"IBlackmagicRawResourceManager", IBlackmagicRawResourceManager> {
public:
    /// Keeps a reference to the codec, which may be null.
    explicit ResourceManager(IUnknown* codec);

    HRESULT STDMETHODCALLTYPE CreateResource(void* context, void* commandQueue, uint32_t sizeBytes,
                                             BlackmagicRawResourceType type, BlackmagicRawResourceUsage usage,
                                             void** resource) override;
    HRESULT STDMETHODCALLTYPE ReleaseResource(void* context, void* commandQueue, void* resource,
                                              BlackmagicRawResourceType type) override;
    HRESULT STDMETHODCALLTYPE CopyResource(void* context, void* commandQueue, void* source,
                                           BlackmagicRawResourceType sourceType, void* destination,
                                           BlackmagicRawResourceType destinationType, uint32_t sizeBytes,
                                           BOOL copyAsync) override;

protected:
    void finish() noexcept override;

private:
    IUnknown* const m_codec;
};

} // namespace reference
