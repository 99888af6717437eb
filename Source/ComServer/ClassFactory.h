// The class factory: makes objects of one class through the class's creation function.
#pragma once

#include <unknwn.h>

#include "ModuleState.h"

/// Creates an object and hands out its interface `riid`; on failure nothing remains.
using CreateFunction = HRESULT (*)(REFIID riid, void** ppv);

/// Hands out the interface `riid` of a new object, of which the caller gives its one reference away: the
/// object lives on only if it has that interface. Null is one that there was no memory for.
template <class Object>
HRESULT handOut(Object* object, REFIID riid, void** ppv) {
    if (object == nullptr)
        return E_OUTOFMEMORY;
    const HRESULT hr = object->QueryInterface(riid, ppv);
    object->Release();
    return hr;
}

/// Counts its references; any thread may use it. Keeps the module loaded while it lives.
class CClassFactory final : public IClassFactory {
public:
    /// With one reference, the caller's.
    explicit CClassFactory(CreateFunction createFunction) noexcept : m_createFunction(createFunction) {}
    virtual ~CClassFactory() = default;
    CClassFactory(const CClassFactory&) = delete;
    CClassFactory& operator=(const CClassFactory&) = delete;

    IFACEMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    IFACEMETHODIMP_(ULONG) AddRef() override;
    IFACEMETHODIMP_(ULONG) Release() override;
    /// Objects of this server cannot be aggregated.
    IFACEMETHODIMP CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override;
    IFACEMETHODIMP LockServer(BOOL fLock) override;

private:
    volatile LONG m_refCount = 1;
    CreateFunction m_createFunction;
    ModuleLock m_moduleLock;
};
