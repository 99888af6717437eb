// The loaded decoder library, and the pipeline and device that frames are processed on.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <wrl/client.h>

#include "BlackmagicRawAPI.h"
#include "Utils/vdBstr.h"

/// A user's hold on the loaded decoder library. The last one to be given back unloads it.
class brLibraryHold {
public:
    brLibraryHold() = default;
    ~brLibraryHold() { giveBack(); }
    brLibraryHold(const brLibraryHold&) = delete;
    brLibraryHold& operator=(const brLibraryHold&) = delete;

    /// Holds the library if it is loaded and this does not hold it yet.
    void take() noexcept;
    void giveBack() noexcept;
    /// The library is never unloaded from here on.
    void keepForGood() noexcept;
    bool isHeld() const { return m_isHeld; }

private:
    bool m_isHeld = false;
};

/// A pipeline's device and what the decoder library says of it.
struct vdPipelineDevice {
    BlackmagicRawInstructionSet instructionSet = 0;
    uint32_t deviceIndex = 0;
    BlackmagicRawPipeline pipeline = blackmagicRawPipelineCPU;
    BlackmagicRawResourceType resourceType = blackmagicRawResourceTypeBufferCPU;
    Microsoft::WRL::ComPtr<IBlackmagicRawPipelineDevice> device;
    vdBstr name;
    vdBstr pipelineName;
    BlackmagicRawInterop interop = blackmagicRawInteropNone;
    void* commandQueue = nullptr; ///< the device's; null on the CPU
    void* context = nullptr;      ///< the device's; null on the CPU
};

/// Host integrations that run the core, by the numbers the settings know them by.
inline constexpr int32_t brFrameworkShell = 3;
inline constexpr int32_t brFrameworkPremiere = 4;
inline constexpr int32_t brFrameworkAfterEffects = 6;

/// The decoder library as one manager holds it. Destroying the record releases everything it holds; the
/// library is unloaded with its last holder.
struct Instance {
    bool isInitialised = false;
    vdBstr libraryFolder; ///< last folder that held the library file, ending with a backslash
    int32_t framework = brFrameworkShell;
    IBlackmagicRawFactory* factory = nullptr; ///< one reference owned
    bool useGpuPipeline = false;
    std::unique_ptr<vdPipelineDevice> pipelineDevice;
    brLibraryHold library;

    Instance() = default;
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    ~Instance();
};

/// Finds and loads the decoder library and creates the factory. 0 when this call created it, 1 otherwise (a
/// second call on the same instance included).
int32_t initBM(Instance& instance);

/// The same for one folder (UTF-8, ending with a backslash).
bool tryToInitBM(Instance& instance, std::string_view folder);

/// True when the library file is the build this product was made for, judged by its size.
bool isTheDllLastVersion(const Instance& instance);

/// Releases all that the instance holds, its hold on the library last; 0 always. The destructor calls it.
int32_t Release(Instance& instance) noexcept;

/// Chooses a pipeline and device and installs them in the instance, replacing what was there. Without
/// `acceptAnyPipeline` only `wantedPipeline` will do. False when none could be had; the instance then keeps
/// what it had.
bool initPipeline(Instance& instance, BlackmagicRawPipeline wantedPipeline, bool acceptAnyPipeline);

/// Several lines for the log.
std::string describePipelineDevice(const vdPipelineDevice& device);
