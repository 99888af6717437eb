// The settings file in memory, for the readers of its keys. Private to the foundation.
#pragma once

#include <string>
#include <string_view>

// Debian's copy of the header holds its templates' bodies back unless asked for them.
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

/// Section and key names compare without regard to case.
using vdSettingsDocument = CSimpleIniA;

/// The General section, where what belongs to no single host stands.
inline constexpr const char* vdGeneralSection = "General";

/// The value of a key; an absent one reads as this text, which therefore stands for no value.
inline constexpr std::string_view vdNoValue = "None";
inline std::string_view readValue(const vdSettingsDocument& ini, const char* section, const char* key) {
    return ini.GetValue(section, key, vdNoValue.data());
}

/// Applies one boolean key. Only "true" and "false" count; anything else leaves `value` alone.
void readBoolOption(const vdSettingsDocument& ini, bool& value, const char* section, const char* key,
                    bool inverted = false);

/// Fills the options' preset names from one list, or where that is missing from a key for each slot. Empty
/// pieces of the list count, so that a name keeps its slot; pieces beyond the last slot are left out.
void readPresetNames(const vdSettingsDocument& ini);
