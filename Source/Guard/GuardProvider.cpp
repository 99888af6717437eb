#include "GuardProvider.h"

#include <new>

#include "ClassFactory.h"
#include "GuardFailures.h"
#include "Utils/vdFailureEvent.h"
#include "Utils/vdGuard.h"
#include "WorkerPool.h"

HRESULT createGuardProvider(REFIID riid, void** ppv) {
    return handOut(new (std::nothrow) CClipforgeGuardProvider, riid, ppv);
}

IFACEMETHODIMP CClipforgeGuardProvider::Initialize(LPCWSTR pszFilePath, DWORD) {
    if (pszFilePath == nullptr)
        return E_UNEXPECTED;
    return guardBoundary([&] {
        m_path = pszFilePath;
        return S_OK;
    });
}

IFACEMETHODIMP CClipforgeGuardProvider::GetThumbnail(UINT cx, HBITMAP* phbmp, WTS_ALPHATYPE* pdwAlpha) {
    if (phbmp == nullptr || pdwAlpha == nullptr)
        return E_POINTER;
    *phbmp = nullptr;
    *pdwAlpha = WTSAT_UNKNOWN;
    const HRESULT hr = guardBoundary([&] {
        WorkerReply reply = askWorkers(m_path, cx);
        *phbmp = reply.bitmap.release();
        *pdwAlpha = reply.alpha;
        return reply.result;
    });
    if (isGuardFailure(hr)) // of the others the handler has told
        reportFailure({m_path.c_str(), L"asking a worker", hr});
    return hr;
}
