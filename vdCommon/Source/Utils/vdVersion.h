// Version records.
#pragma once

#include <cstdint>
#include <string>

/// `beta` 0 is a release; `major` 255 marks an unknown version.
struct vdVersion {
    uint8_t major = 0;
    uint8_t minor = 0;
    uint8_t patch = 0;
    uint8_t beta = 0;
};

/// "3.1.5", with ".beta2" behind it for a beta.
std::string versionToString(vdVersion version);
