// What every COM object has that makes thumbnails: identity and lifetime.
#pragma once

#include <propsys.h>
#include <thumbcache.h>

#include "ModuleState.h"

/// Starts with one reference, the caller's, and keeps the module loaded. Any thread may count its references.
class ThumbnailObject : public IInitializeWithFile, public IThumbnailProvider {
public:
    ThumbnailObject(const ThumbnailObject&) = delete;
    ThumbnailObject& operator=(const ThumbnailObject&) = delete;

    IFACEMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    IFACEMETHODIMP_(ULONG) AddRef() override;
    IFACEMETHODIMP_(ULONG) Release() override;

protected:
    ThumbnailObject() noexcept = default;
    virtual ~ThumbnailObject() = default;
    /// Nobody has the object any more: it is deleted next.
    virtual void onLastRelease() noexcept {}

private:
    volatile LONG m_references = 1;
    ModuleLock m_moduleLock;
};
