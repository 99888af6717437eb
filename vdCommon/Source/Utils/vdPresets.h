// Names of the presets that the user's other hosts keep, and their folder.
#pragma once

#include <string>
#include <string_view>

#include "Utils/vdStatus.h"

class vdSettingsDocument;

/// The presets folder inside the product folder, created when missing.
vdStatus getPresetsFolder(std::string& folder);

/// Fills the options' preset names from one list, or where that is missing from a key for each slot. Empty
/// pieces of the list count, so that a name keeps its slot; pieces beyond the last slot are left out.
void readPresetNames(const vdSettingsDocument& ini);

/// Cleans `name` (its slot marker, separators, length) and stores it in the options' `slot` (0 to 19), unless
/// nothing or a placeholder is left.
void setPresetName(int slot, std::string_view name);
