// The user's options from the settings file.
#pragma once

#include <array>
#include <string>

#include "Utils/vdLogging.h"

inline constexpr int vdPresetCount = 20;

/// The user's options. The initial values are also the ones after a reset.
struct vdOptions {
    bool presetsFromFile = false;
    vdLogLevel loggingLevel = vdLogLevel::off;
    bool prproHybridGPUCPUDecoding = false;
    std::array<std::string, vdPresetCount> presetNames;
    bool enableCorrectXml = false;
    std::string brawDesktopFilepath;
    bool autoUpdateDisabled = false;
    bool importerSyncMode = false;
    bool pproLowerPriority = false;
    bool pproDisableTimecodeWarning = false;
    bool aeImporterOnlyOneFrameWhenLayerSettings = true;
    bool pproDisableSourceSettingsPanel = false;
    bool aeLowerPriority = false;
    bool aeLayerSettingsGPUEnabled3 = true;

    vdOptions();
};

/// The process-wide options. Written by resetOptions and loadOptions on the thread that creates a provider;
/// not guarded.
vdOptions& options();
void resetOptions();
/// Reads the settings file. Without a profile folder the options stay as they are; an unreadable file gives
/// the reset values; a malformed value leaves its own field alone. What memory does not suffice for is left
/// out: no host is refused its thumbnail for an option.
void loadOptions() noexcept;
