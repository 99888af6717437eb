// The product's identity.
#pragma once

#include <cstdint>
#include <string_view>

#include "Utils/vdBuildVersion.h"
#include "Utils/vdVersion.h"

/// Who we are. The commands, the address and the page are other hosts' to use.
struct vdProductInfo {
    vdVersion version{CLIPFORGE_VERSION_MAJOR, CLIPFORGE_VERSION_MINOR, CLIPFORGE_VERSION_PATCH, 0};
    uint32_t build = CLIPFORGE_BUILD;
    std::string_view displayName = "Clipforge";
    std::string_view supportAddress = "support@clipforge.example";
    std::string_view productId = "Clipforge";
    std::string_view productUrl = "https://clipforge.example";
    std::string_view folderName = "Clipforge"; ///< inside the maker's folder
    std::string_view optionsFileName = "Clipforge_options.ini";
    std::string_view commandFileName = "Clipforge_CmdFile.txt";
    std::string_view logSubFolder; ///< empty: the foundation's own name for it
};

/// The identity; there from load on, constant.
constexpr vdProductInfo productInfo() {
    return {};
}
