#include "Utils/vdSettingsDocument.h"

// Debian's copy of the header holds its templates' bodies back unless asked for them.
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

struct vdSettingsDocument::Parsed {
    explicit Parsed(const std::string& bytes) { ini.LoadData(bytes.c_str(), bytes.size()); }

    static constexpr bool utf8 = false;
    static constexpr bool multiKey = false;
    static constexpr bool multiLine = false;
    CSimpleIniA ini{utf8, multiKey, multiLine};
};

vdSettingsDocument::vdSettingsDocument(const std::string& bytes)
    : m_parsed(std::make_unique<const Parsed>(bytes)) {}

vdSettingsDocument::~vdSettingsDocument() = default;

std::string_view vdSettingsDocument::value(const char* section, const char* key) const {
    return m_parsed->ini.GetValue(section, key, vdNoValue.data());
}
