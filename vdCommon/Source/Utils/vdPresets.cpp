#include "Utils/vdPresets.h"

#include <utility>

#include "Utils/vdLogging.h"
#include "Utils/vdPaths.h"
#include "Utils/vdSettings.h"
#include "Utils/vdSettingsDocument.h"

namespace {
constexpr std::string_view presetsFolderName = "BR_Preset";
constexpr std::size_t longestNameBytes = 64;
constexpr char presetSeparator = '|';
constexpr std::string_view slotMarker = "#";
constexpr std::string_view slotSeparator = " - ";
constexpr std::string_view placeholders[] = {"No Preset", "Untitled Preset"};

void setPresetNames(std::string_view list) {
    int slot = 0;
    for (; slot < vdPresetCount; ++slot) {
        const std::size_t end = list.find(presetSeparator);
        setPresetName(slot, list.substr(0, end));
        if (end == std::string_view::npos)
            return;
        list.remove_prefix(end + 1);
    }
    VD_LOG_WARN("Only " << vdPresetCount << " presets can be named, left out : " << list);
}
} // namespace

vdStatus getPresetsFolder(std::string& folder) {
    if (const vdStatus status = getProductFolder(folder); status.failed)
        return status;
    folder = joinPath(folder, presetsFolderName);
    return createDirectory(folder);
}

void setPresetName(int slot, std::string_view name) {
    if (slot < 0 || slot >= vdPresetCount)
        return;
    std::string prefix(slotMarker);
    prefix += std::to_string(slot + 1);
    prefix += slotSeparator;
    if (name.size() > prefix.size() && name.starts_with(prefix))
        name.remove_prefix(prefix.size());
    std::string clean(name);
    std::erase(clean, presetSeparator);
    if (clean.size() > longestNameBytes)
        clean.resize(longestNameBytes);
    if (clean.empty())
        return;
    for (const std::string_view placeholder : placeholders)
        if (clean.starts_with(placeholder))
            return;
    options().presetNames[static_cast<std::size_t>(slot)] = std::move(clean);
}

void readPresetNames(const vdSettingsDocument& ini) {
    if (const std::string_view list = ini.value(vdGeneralSection, "presetsNames"); list != vdNoValue) {
        options().presetsFromFile = true;
        setPresetNames(list);
        return;
    }
    for (int slot = 0; slot < vdPresetCount; ++slot) {
        const std::string key = "presetsName" + std::to_string(slot);
        const std::string_view name = ini.value(vdGeneralSection, key.c_str());
        if (name == vdNoValue)
            continue;
        options().presetsFromFile = true;
        setPresetName(slot, name);
    }
}
