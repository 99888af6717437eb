// Names of the presets that the user's other hosts keep, and their folder.
#pragma once

#include <string>
#include <string_view>

#include "Utils/vdStatus.h"

/// The presets folder inside the product folder, created when missing.
vdStatus getPresetsFolder(std::string& folder);

/// Cleans `name` (its slot marker, separators, length) and stores it in the options' `slot` (0 to 19), unless
/// nothing or a placeholder is left.
void setPresetName(int slot, std::string_view name);
