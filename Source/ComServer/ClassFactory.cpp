#include "ClassFactory.h"

#include <shlwapi.h>

#include "Utils/vdGuard.h"

IFACEMETHODIMP CClassFactory::QueryInterface(REFIID riid, void** ppv) {
    if (ppv == nullptr)
        return E_POINTER;
    static const QITAB interfaces[] = {QITABENT(CClassFactory, IClassFactory), {nullptr, 0}};
    return QISearch(this, interfaces, riid, ppv);
}

IFACEMETHODIMP_(ULONG) CClassFactory::AddRef() {
    return static_cast<ULONG>(InterlockedIncrement(&m_refCount));
}

IFACEMETHODIMP_(ULONG) CClassFactory::Release() {
    const LONG count = InterlockedDecrement(&m_refCount);
    if (count == 0)
        delete this;
    return static_cast<ULONG>(count);
}

IFACEMETHODIMP CClassFactory::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) {
    if (ppv == nullptr)
        return E_POINTER;
    *ppv = nullptr;
    if (pUnkOuter != nullptr)
        return CLASS_E_NOAGGREGATION;
    return guardBoundary([&] { return m_createFunction(riid, ppv); });
}

IFACEMETHODIMP CClassFactory::LockServer(BOOL fLock) {
    if (fLock)
        InterlockedIncrement(&g_moduleLockCount);
    else
        InterlockedDecrement(&g_moduleLockCount);
    return S_OK;
}
