// What must outlive every object of one codec.
#pragma once

#include <memory>

#include <wrl/client.h>

#include "BlackmagicRawAPI.h"
#include "Callback.h"
#include "Instance.h"

/// Shared by the manager and the buffers of every request that was prepared for the codec: while one of them
/// lives, so do the device, the callback and the library. A library may give its codec whatever owners it
/// likes; none of them is looked for, since all of them are among what is held here.
class brCodecSession {
public:
    /// Holds the library as it is loaded, and the device (may be null) that the codec is set to.
    explicit brCodecSession(Microsoft::WRL::ComPtr<IBlackmagicRawPipelineDevice> device);
    /// The last look, as settle has it.
    ~brCodecSession();
    brCodecSession(const brCodecSession&) = delete;
    brCodecSession& operator=(const brCodecSession&) = delete;

    /// A callback of the session's own; null without memory for it.
    vdBRAW_Manager_Callback* makeCallback();
    /// Null before makeCallback.
    vdBRAW_Manager_Callback* callback() const { return m_callback.Get(); }

    /// True when every job's completion has returned; waits for those that have not, for so long.
    bool isAtRest(uint32_t milliseconds = 0) const noexcept;
    /// Library, callback and this module's code stay for good: somebody may still run them.
    void keepForGood() noexcept;
    /// The device stays as well: a job may still work on it.
    void keepDeviceForGood() noexcept { m_device.Detach(); }
    /// To be called when the codec and all that came of it have been given back: gives up the library unless
    /// it still holds the callback, which then stays for good with all else: false.
    bool settle() noexcept;

private:
    brLibraryHold m_library;
    Microsoft::WRL::ComPtr<IBlackmagicRawPipelineDevice> m_device;
    Microsoft::WRL::ComPtr<vdBRAW_Manager_Callback> m_callback; ///< given up after the library
    bool m_isKept = false;
};
