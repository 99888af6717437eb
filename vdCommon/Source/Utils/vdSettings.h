// The product's identity, and the user's options from the settings file.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "Utils/vdLogging.h"
#include "Utils/vdVersion.h"

/// Who we are; constant once filled.
struct vdProductInfo {
    vdVersion version;
    uint32_t build = 0;
    std::string displayName;
    std::string supportAddress;
    std::string productId;
    std::string productUrl;
    std::string folderName;
    std::string optionsFileName;
    std::string commandFileName;
    std::string logSubFolder;
};

/// The identity; filled by setProductInfo, which the session's owner calls before the options are read.
const vdProductInfo& productInfo();
void setProductInfo();

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
/// the reset values; a malformed value leaves its own field alone.
void loadOptions();
