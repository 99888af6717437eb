// The decode manager: the codec, the registry of open clips, and the queue of requests.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <wrl/client.h>

#include "BlackmagicRawAPI.h"
#include "Clip.h"
#include "CodecSession.h"
#include "Instance.h"
#include "Request.h"
#include "Utils/vdMutex.h"
#include "Utils/vdStatus.h"

/// The one object through which the process talks to the decoder library. Results are 0 for success and 1 for
/// refusal or failure, or a failing HRESULT, unless stated.
///
/// Locks: the registry's before a clip's; the queue's before a request's; a clip's is never held while the
/// queue's is taken.
class vdBRAW_Manager {
public:
    /// Not initialised: m_errorInfo says so until init succeeds.
    vdBRAW_Manager();
    /// Releases everything: the requests' buffers, the instance and with it the decoder library, the callback
    /// last. What a job may still use when no flush helps stays for good, with a line in the log.
    ~vdBRAW_Manager();
    vdBRAW_Manager(const vdBRAW_Manager&) = delete;
    vdBRAW_Manager& operator=(const vdBRAW_Manager&) = delete;

    /// Brings the codec up. Works once per manager. What went wrong is in m_errorInfo, for the user's eyes.
    int init(std::unique_ptr<Instance> instance);
    /// The same for a pipeline; on a running manager the codec is replaced, and every clip is closed before
    /// and reloaded after. Requests still running are cancelled; those that were prepared before and are
    /// submitted after are refused. Not beside other calls on this manager.
    int initFromFramework(BlackmagicRawPipeline pipeline, bool useGPU);
    /// One information line on the codec's configuration.
    void logCodecConfiguration();
    /// Waits for the library's jobs, cancels requests that still have not ended, and gives everything back
    /// but the queue and the instance. 0 always.
    int Release();

    /// An empty set of buffers for one request on the current pipeline device, good for the current codec.
    std::unique_ptr<brBufferManager> createBufferManager() const;

    // Clips.

    /// The clip with this ID, or null.
    std::shared_ptr<vdBRAW_Clip> GetClip(uint64_t id);
    /// 1 and the first clip whose path equals `path` byte for byte, else 0.
    uint32_t GetClipIDFromFilepath(std::string_view path, uint64_t& idOut,
                                   std::shared_ptr<vdBRAW_Clip>& clipOut);
    /// Finds the clip, reloading it when it was closed, or opens it.
    int AddClipIfNew(std::string_view path, uint64_t& idOut);
    /// Opens the clip under the registry's next ID. One that cannot be opened is not registered.
    int AddClip(std::string_view path, uint64_t& idOut);
    /// The geometry that clips are opened with, by the two flags below.
    HRESULT createGeometryForClip(Microsoft::WRL::ComPtr<IBlackmagicRawClipGeometry>& geometryOut) const;
    /// Closes the clip; it stays registered.
    int CloseClip(const std::shared_ptr<vdBRAW_Clip>& clip);

    // Requests.

    /// Submits the request's read job and queues the request, also when submission fails: it is then a
    /// finished request that carries the error. What runs out of memory before submission throws, and neither
    /// submits nor queues.
    int AddProcessFrameAsync(std::shared_ptr<vdBRAW_Request> request);
    /// Finds the very object in the queue, and removes it when it no longer runs. 0 always.
    int FindInQueue(const std::shared_ptr<vdBRAW_Request>& request,
                    std::shared_ptr<vdBRAW_Request>& requestOut, bool& stillProcessingOut);
    /// Makes the library finish its jobs, removes finished requests, cancels the others. 1 without codec.
    int FlushQueue();
    /// Runs the request to its end on the caller's thread. 0 when it went through the queue; how it ended is
    /// in the request itself.
    int ProcessFrameSync(std::shared_ptr<vdBRAW_Request> request);

    std::unique_ptr<Instance> m_instance;
    Microsoft::WRL::ComPtr<IBlackmagicRawResourceManager> m_resourceManager;
    Microsoft::WRL::ComPtr<IBlackmagicRawManualDecoderFlow1> m_manualDecoderCPU;
    Microsoft::WRL::ComPtr<IBlackmagicRawManualDecoderFlow2> m_manualDecoderGPU; ///< null on the CPU pipeline
    vdStatus m_errorInfo;
    bool m_useMetadataGeometry = false;
    bool m_flipVertical = false;

private:
    /// How far a read job came: `result` is what the submitter is told, the rest is the request's error.
    struct Submission {
        HRESULT result = S_OK;
        HRESULT errorResult = S_OK;
        std::string message;
        uint32_t code = brErrorNone;
    };

    int failInit(std::string_view errorInfo, const char* function, std::string_view logLine);
    /// An empty line: the error's own text.
    int failInit(std::string_view errorInfo, HRESULT hr, std::string_view logLine = {});
    void rebindDevice();
    std::vector<std::shared_ptr<vdBRAW_Clip>> closeForReinitialisation();
    int createCodec();
    bool usesGPU() const;
    HRESULT bindDevice();
    void queryGPUDecoder();
    int installCallback();
    /// What the last flush left of the library's work.
    enum class Rest {
        complete,   ///< it has finished, and its threads with it
        ofJobs,     ///< no job is in flight, but its threads may still run the library's code
        incomplete, ///< a job is still running
    };
    Rest bringToRest(const char* function);
    void letGoOfCodec(Rest rest, const char* function);
    void releaseCodec();
    void abandonCodec(const char* function);
    void settleSession();
    void releaseClips();

    std::vector<std::shared_ptr<vdBRAW_Clip>> allClips();
    size_t openedClipCount() const;

    using Queue = std::list<std::shared_ptr<vdBRAW_Request>>;

    /// Room in the queue for one request, had before its job is submitted: what could not be queued then
    /// could not be called back. Goes when it was not used.
    class QueueSlot {
    public:
        explicit QueueSlot(vdBRAW_Manager& manager) : m_manager(manager), m_room(1) {} ///< may throw
        /// Once.
        void fill(std::shared_ptr<vdBRAW_Request> request, const char* function) noexcept;

    private:
        vdBRAW_Manager& m_manager;
        Queue m_room;
    };

    bool isOfThisCodec(const brBufferManager& buffers) const;
    Submission submitRead(vdBRAW_Request& request, brBufferManager::Job& job);
    /// Ends the request with what its submission failed at, and queues it like any other.
    static void queueWithError(QueueSlot& slot, std::shared_ptr<vdBRAW_Request> request,
                               const Submission& failure);
    /// Cancels the queue's requests that have not ended.
    void cancelQueue(const char* function);
    /// True when the request has ended; one that has not is cancelled.
    static bool finishedOrCancelled(vdBRAW_Request& request, const char* function);

    bool m_isLibraryAccepted = false; ///< by init: it is there, has a factory and is of the right version
    std::map<uint64_t, std::shared_ptr<vdBRAW_Clip>> m_clips; ///< its order is that of the IDs
    std::mutex m_clipsMutex;
    Queue m_queue;
    vdMutex m_queueMutex;
    Microsoft::WRL::ComPtr<IBlackmagicRaw> m_codec;
    Microsoft::WRL::ComPtr<IBlackmagicRawConfiguration> m_configuration;
    Microsoft::WRL::ComPtr<IBlackmagicRawConfigurationEx> m_configurationEx;
    std::shared_ptr<brCodecSession> m_session; ///< with the callback; stays when the codec has gone
    bool m_keepsInstance = false;              ///< something of it may still be in use when this ends
};

/// The process's one manager; null when there is none. The shell handler sets it, under its own lock.
extern vdBRAW_Manager* g_manager;
