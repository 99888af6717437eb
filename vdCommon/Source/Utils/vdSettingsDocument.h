// The settings file in memory, for the readers of its keys. Private to the foundation.
#pragma once

#include <memory>
#include <string>
#include <string_view>

/// The General section, where what belongs to no single host stands.
inline constexpr const char* vdGeneralSection = "General";

/// What the value of an absent key reads as; written in the file, it stands for no value as well.
inline constexpr std::string_view vdNoValue = "None";

/// Section and key names compare without regard to case; of two equal keys the last one counts.
class vdSettingsDocument {
public:
    /// Parses the file's bytes. A parser that gives up midway keeps what it has parsed, and that much is
    /// read. May throw std::bad_alloc.
    explicit vdSettingsDocument(const std::string& bytes);
    ~vdSettingsDocument();
    vdSettingsDocument(const vdSettingsDocument&) = delete;
    vdSettingsDocument& operator=(const vdSettingsDocument&) = delete;

    /// As written in the file, or vdNoValue. Borrowed from the document.
    std::string_view value(const char* section, const char* key) const;

private:
    struct Parsed;
    std::unique_ptr<const Parsed> m_parsed;
};
