// The product's identity.
#pragma once

#include <cstdint>
#include <string>

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
