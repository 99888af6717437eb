#include "ThumbnailObject.h"

#include <shlwapi.h>

IFACEMETHODIMP ThumbnailObject::QueryInterface(REFIID riid, void** ppv) {
    if (ppv == nullptr)
        return E_POINTER;
    static const QITAB interfaces[] = {QITABENT(ThumbnailObject, IInitializeWithFile),
                                       QITABENT(ThumbnailObject, IThumbnailProvider),
                                       {nullptr, 0}};
    return QISearch(this, interfaces, riid, ppv);
}

IFACEMETHODIMP_(ULONG) ThumbnailObject::AddRef() {
    return static_cast<ULONG>(InterlockedIncrement(&m_references));
}

IFACEMETHODIMP_(ULONG) ThumbnailObject::Release() {
    const LONG count = InterlockedDecrement(&m_references);
    if (count == 0) {
        onLastRelease();
        delete this;
    }
    return static_cast<ULONG>(count);
}
