#include "Adobe/vdHost.h"

#include <windows.h>

#include "Utils/vdLogging.h"
#include "Utils/vdModule.h"

std::wstring GetDylibParentFolderPath() {
    std::wstring path = ownModulePath();
    const DWORD error = GetLastError();
    if (path.empty() || path.size() >= MAX_PATH) {
        VD_LOG_ERROR("GetModuleFileName failed, error = " << error);
        return {};
    }
    path.resize(path.rfind(L'\\') + 1);
    return path;
}
