// The core's failure with a result code behind it.
#pragma once

#include <string>
#include <string_view>

#include "Utils/vdResult.h"
#include "Utils/vdStatus.h"

/// `message` and directly behind it the system's text for `hr`.
inline vdStatus failure(std::string_view message, HRESULT hr) {
    return vdFailure(std::string(message) + hresultText(hr));
}
