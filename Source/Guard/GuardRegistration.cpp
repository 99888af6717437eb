#include "GuardRegistration.h"

#include <shlobj.h>

#include "GuardValues.h"
#include "RegistryRows.h"

namespace {
constexpr wchar_t memoryKey[] = L"Software\\Verdane\\Clipforge\\Guard";

HRESULT tellShell(HRESULT hr) {
    if (SUCCEEDED(hr))
        SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    return hr;
}
} // namespace

HRESULT registerGuard() {
    std::wstring path;
    if (const HRESULT hr = findModulePath(path); FAILED(hr))
        return hr;
    return tellShell(writeSharedValues(HKEY_LOCAL_MACHINE, memoryKey, guardValues(path)));
}

HRESULT unregisterGuard() {
    return tellShell(restoreSharedValues(HKEY_LOCAL_MACHINE, memoryKey));
}
