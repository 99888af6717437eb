#include "Utils/vdSettings.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>

#include "Utils/vdErrorMode.h"
#include "Utils/vdGuard.h"
#include "Utils/vdPaths.h"
#include "Utils/vdPresets.h"
#include "Utils/vdSettingsDocument.h"

namespace {
/// No settings file written by a person or a host comes near this size. One beyond it is not ours, and the
/// process that we are a guest in is not to pay for reading it.
constexpr long largestSettingsFile = 1024 * 1024;

/// The file's bytes; without value when it cannot be read.
std::optional<std::string> readSettingsFile(const std::string& path) {
    const std::unique_ptr<FILE, decltype(&std::fclose)> file(openForReading(path, "rb"), &std::fclose);
    if (!file || std::fseek(file.get(), 0, SEEK_END) != 0)
        return {};
    const long size = std::ftell(file.get());
    if (size < 0)
        return {};
    if (size > largestSettingsFile) {
        VD_LOG_ERROR("Settings file is too large, ignored : " << path);
        return {};
    }
    std::string bytes(static_cast<std::size_t>(size), '\0');
    std::rewind(file.get());
    if (std::fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
        return {};
    return bytes;
}

/// An unknown name leaves the log off.
void readLoggingLevel(const vdSettingsDocument& ini) {
    const auto* const end = std::end(vdLogLevelNames);
    const auto* const found =
        std::find(std::begin(vdLogLevelNames), end, ini.value(vdGeneralSection, "logging"));
    if (found != end)
        options().loggingLevel = static_cast<vdLogLevel>(found - vdLogLevelNames);
}

/// Only "true" and "false" count; anything else leaves `value` alone.
void readBoolOption(const vdSettingsDocument& ini, bool& value, const char* section, const char* key,
                    bool inverted) {
    const std::string_view text = ini.value(section, key);
    if (text == "true" || text == "false")
        value = (text == "true") != inverted;
}

struct BoolOption {
    const char* section;
    const char* key;
    bool vdOptions::*field;
    bool inverted = false;
};

constexpr BoolOption boolOptions[] = {
    {"General", "prproHybridGPUCPUDecoding", &vdOptions::prproHybridGPUCPUDecoding},
    {"General", "importerSyncMode", &vdOptions::importerSyncMode},
    {"General", "enableCorrectXml", &vdOptions::enableCorrectXml},
    {"General", "enableAutoUpdate", &vdOptions::autoUpdateDisabled, true},
    {"PremierePro", "lowerPriority", &vdOptions::pproLowerPriority},
    {"PremierePro", "pproDisableTimecodeWarning", &vdOptions::pproDisableTimecodeWarning},
    {"PremierePro", "pproDisableSourceSettingsPanel", &vdOptions::pproDisableSourceSettingsPanel},
    {"AfterEffects", "lowerPriority", &vdOptions::aeLowerPriority},
    {"AfterEffects", "ImporterOnlyOneFrameWhenLayerSettings",
     &vdOptions::aeImporterOnlyOneFrameWhenLayerSettings},
    {"AfterEffects", "aeLayerSettingsGPUEnabled3", &vdOptions::aeLayerSettingsGPUEnabled3},
};

void readOptions(const vdSettingsDocument& ini) {
    readLoggingLevel(ini);
    std::string presetsFolder;
    getPresetsFolder(presetsFolder); // only to have it created; the names are read all the same
    readPresetNames(ini);
    if (const std::string_view path = ini.value(vdGeneralSection, "brawDesktopFilepath"); path != vdNoValue)
        options().brawDesktopFilepath = path;
    for (const auto& [section, key, field, inverted] : boolOptions)
        readBoolOption(ini, options().*field, section, key, inverted);
}
} // namespace

vdOptions::vdOptions() {
    presetNames.fill("No Preset");
}

vdOptions& options() {
    static vdOptions theOptions;
    return theOptions;
}

void resetOptions() {
    options() = vdOptions();
}

void loadOptions() noexcept {
    const vdQuietErrors quiet;
    guardBoundary([] {
        std::string path;
        if (getOptionsFilePath(path).failed)
            return S_FALSE;
        const std::optional<std::string> bytes = readSettingsFile(path);
        resetOptions();
        if (bytes)
            readOptions(vdSettingsDocument(*bytes));
        return S_OK;
    });
}
