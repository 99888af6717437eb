#include "ComServer.h"

#include <new>

#include "ModuleState.h"

void attachServer(HMODULE module) noexcept {
    DisableThreadLibraryCalls(module);
}

HRESULT getClassObject(std::span<const ClassRow> classes, REFCLSID rclsid, REFIID riid, void** ppv) noexcept {
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    for (const ClassRow& row : classes)
        if (*row.classId == rclsid)
            return handOut(new (std::nothrow) CClassFactory(row.create), riid, ppv);
    return CLASS_E_CLASSNOTAVAILABLE;
}

HRESULT canUnloadServer() noexcept {
    return g_moduleLockCount != 0 ? S_FALSE : S_OK;
}
