// What COM, regsvr32 and the loader call by name.
#include "ComServer.h"
#include "GuardProvider.h"
#include "GuardRegistration.h"
#include "Utils/vdGuard.h"
#include "WorkerPool.h"

namespace {
constexpr ClassRow classes[] = {{&CLSID_ClipforgeGuardProvider, createGuardProvider}};
} // namespace

/// When the process ends, the workers' jobs end them; their handles are Windows' to close.
extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID processEnds) {
    if (reason == DLL_PROCESS_ATTACH)
        attachServer(module);
    else if (reason == DLL_PROCESS_DETACH && processEnds == nullptr)
        endWorkersAtUnload();
    return TRUE;
}

STDAPI DllCanUnloadNow() {
    const HRESULT hr = canUnloadServer();
    if (hr == S_OK)
        endIdleWorkers();
    return hr;
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
    return getClassObject(classes, rclsid, riid, ppv);
}

STDAPI DllRegisterServer() {
    return guardBoundary([] { return registerGuard(); });
}

STDAPI DllUnregisterServer() {
    return guardBoundary([] { return unregisterGuard(); });
}
