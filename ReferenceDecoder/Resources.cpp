#include "Resources.h"

#include <cstring>
#include <map>

#include "Lock.h"
#include "Pipelines.h"

namespace reference {

namespace {

constexpr uint64_t kLargestResource = 0x7FFFFFFF;
constexpr uint64_t kPage = 4096;

struct Resource {
    uint64_t bytes;
    BlackmagicRawResourceType type;
    void* pages;
    bool isGuarded;
    bool isForGpuAlone; ///< a GPU's, and only a GPU writes it
};

/// All resources by address. Guarded ones that were released stay reserved, and so inaccessible, until some
/// more have been.
class ResourceTable {
public:
    HRESULT create(uint64_t bytes, BlackmagicRawResourceType type, void** resource, bool isForGpuAlone) {
        const bool isGuarded = referenceDecoderControl().guardResources;
        const uint64_t wholePages = (bytes + kPage - 1) / kPage * kPage;
        void* pages =
            VirtualAlloc(nullptr, wholePages + (isGuarded ? kPage : 0), MEM_RESERVE, PAGE_READWRITE);
        if (!pages)
            return E_OUTOFMEMORY;
        if (!VirtualAlloc(pages, wholePages, MEM_COMMIT, PAGE_READWRITE)) {
            VirtualFree(pages, 0, MEM_RELEASE);
            return E_OUTOFMEMORY;
        }
        void* const start = static_cast<char*>(pages) + (isGuarded ? wholePages - bytes : 0);
        {
            const Lock::Guard guard(m_lock);
            m_resources.emplace(start, Resource{bytes, type, pages, isGuarded, isForGpuAlone});
        }
        count(bytes);
        *resource = start;
        return S_OK;
    }

    /// False when there is no such resource of that type.
    bool release(void* start, BlackmagicRawResourceType type) {
        void* toFree;
        {
            const Lock::Guard guard(m_lock);
            const auto found = m_resources.find(start);
            if (found == m_resources.end() || found->second.type != type)
                return false;
            const Resource resource = found->second;
            m_resources.erase(found);
            --account().liveResources;
            account().liveResourceBytes -= static_cast<int64_t>(resource.bytes);
            toFree = resource.pages;
            if (resource.isGuarded) {
                VirtualFree(resource.pages, (resource.bytes + kPage - 1) / kPage * kPage, MEM_DECOMMIT);
                std::swap(toFree, m_reserved[m_nextReserved]);
                m_nextReserved = (m_nextReserved + 1) % std::size(m_reserved);
            }
        }
        if (toFree)
            VirtualFree(toFree, 0, MEM_RELEASE);
        return true;
    }

    /// The bytes from `address` to the end of the resource it lies in, and its type; false in none.
    bool find(const void* address, uint64_t& bytesLeft, BlackmagicRawResourceType& type) {
        const Lock::Guard guard(m_lock);
        auto after = m_resources.upper_bound(const_cast<void*>(address));
        if (after == m_resources.begin())
            return false;
        const auto& [start, resource] = *--after;
        const auto offset =
            static_cast<uint64_t>(static_cast<const char*>(address) - static_cast<char*>(start));
        if (offset >= resource.bytes)
            return false;
        bytesLeft = resource.bytes - offset;
        type = resource.type;
        return true;
    }

    bool isForGpuAlone(void* start) {
        const Lock::Guard guard(m_lock);
        const auto found = m_resources.find(start);
        return found != m_resources.end() && found->second.isForGpuAlone;
    }

    ~ResourceTable() {
        for (void* pages : m_reserved)
            if (pages)
                VirtualFree(pages, 0, MEM_RELEASE);
    }

private:
    static void count(uint64_t bytes) {
        ++account().liveResources;
        const int64_t live = account().liveResourceBytes += static_cast<int64_t>(bytes);
        int64_t peak = account().peakResourceBytes;
        while (live > peak && !account().peakResourceBytes.compare_exchange_weak(peak, live))
            ;
    }

    Lock m_lock;
    std::map<void*, Resource> m_resources;
    void* m_reserved[64]{};
    size_t m_nextReserved = 0;
};

ResourceTable& table() {
    static ResourceTable s_table;
    return s_table;
}

bool isDevice(BlackmagicRawResourceType type) {
    return type == blackmagicRawResourceTypeBufferCUDA;
}

/// Host memory goes without context and queue, device memory with those of the GPU pipeline.
bool isRightPlace(void* context, void* commandQueue, BlackmagicRawResourceType type) {
    if (type == blackmagicRawResourceTypeBufferCPU)
        return !context && !commandQueue;
    return isDevice(type) && isGpuHeld() && context == gpuContext() && commandQueue == gpuCommandQueue();
}

HRESULT resourceFault() {
    ++account().resourceFaults;
    return E_INVALIDARG;
}

} // namespace

void* gpuContext() {
    static char s_context;
    return &s_context;
}

void* gpuCommandQueue() {
    static char s_commandQueue;
    return &s_commandQueue;
}

HRESULT createResource(uint64_t bytes, BlackmagicRawResourceType type, void** resource, bool isForGpuAlone) {
    return table().create(bytes, type, resource, isForGpuAlone);
}

HRESULT releaseResource(void* resource, BlackmagicRawResourceType type) {
    return table().release(resource, type) ? S_OK : resourceFault();
}

uint32_t spareBytes() {
    return referenceDecoderHas(ReferenceDecoderManners::buffersNeedMore) ? 1000 : 0;
}

void fillSpare(void* buffer, uint64_t end, uint32_t spare) {
    std::memset(static_cast<char*>(buffer) + end, 0xA5, spare);
}

bool fitsBuffer(const void* buffer, uint64_t bytes, BlackmagicRawResourceType type) {
    if (!buffer)
        return false;
    uint64_t bytesLeft = 0;
    BlackmagicRawResourceType found = 0;
    if (!table().find(buffer, bytesLeft, found))
        return !isDevice(type);
    return found == type && bytes <= bytesLeft;
}

ResourceManager::ResourceManager(IUnknown* codec) : m_codec(codec) {
    if (m_codec)
        m_codec->AddRef();
}

void ResourceManager::finish() noexcept {
    if (m_codec)
        m_codec->Release();
}

HRESULT ResourceManager::CreateResource(void* context, void* commandQueue, uint32_t sizeBytes,
                                        BlackmagicRawResourceType type, BlackmagicRawResourceUsage usage,
                                        void** resource) {
    return cross<"IBlackmagicRawResourceManager::CreateResource">(
        [&]() -> HRESULT {
            const bool isUsageRight = type == blackmagicRawResourceTypeBufferCPU
                                          ? usage == blackmagicRawResourceUsageReadCPUWriteCPU
                                          : usage == blackmagicRawResourceUsageReadGPUWriteCPU ||
                                                usage == blackmagicRawResourceUsageReadGPUWriteGPU;
            if (sizeBytes == 0 || !isUsageRight || !isRightPlace(context, commandQueue, type))
                return badArgument();
            if (sizeBytes > kLargestResource)
                return E_OUTOFMEMORY;
            return createResource(sizeBytes, type, resource,
                                  usage == blackmagicRawResourceUsageReadGPUWriteGPU);
        },
        resource);
}

HRESULT ResourceManager::ReleaseResource(void* context, void* commandQueue, void* resource,
                                         BlackmagicRawResourceType type) {
    return cross<"IBlackmagicRawResourceManager::ReleaseResource">([&] {
        if (!isRightPlace(context, commandQueue, type))
            return resourceFault();
        return releaseResource(resource, type);
    });
}

HRESULT ResourceManager::CopyResource(void* context, void* commandQueue, void* source,
                                      BlackmagicRawResourceType sourceType, void* destination,
                                      BlackmagicRawResourceType destinationType, uint32_t sizeBytes,
                                      BOOL copyAsync) {
    return cross<"IBlackmagicRawResourceManager::CopyResource">([&]() -> HRESULT {
        const BlackmagicRawResourceType side = isDevice(sourceType) ? sourceType : destinationType;
        if (!isRightPlace(context, commandQueue, side) || !fitsBuffer(source, sizeBytes, sourceType) ||
            !fitsBuffer(destination, sizeBytes, destinationType) ||
            (!isDevice(sourceType) && table().isForGpuAlone(destination)))
            return resourceFault();
        // An asynchronous copy may be done at once: nothing that follows on the queue can tell.
        account().copiesAsync += copyAsync != FALSE;
        std::memmove(destination, source, sizeBytes);
        return S_OK;
    });
}

} // namespace reference
