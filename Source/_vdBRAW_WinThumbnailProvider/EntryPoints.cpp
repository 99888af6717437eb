// What COM, regsvr32 and the loader call by name.
#include "BRThumbnailProvider.h"
#include "ComServer.h"
#include "Registration.h"
#include "Utils/vdGuard.h"

namespace {
constexpr ClassRow classes[] = {{&CLSID_ClipforgeThumbProvider, createProvider}};
} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH)
        attachServer(module);
    return TRUE;
}

STDAPI DllCanUnloadNow() {
    return canUnloadServer();
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
    return getClassObject(classes, rclsid, riid, ppv);
}

STDAPI DllRegisterServer() {
    return guardBoundary([] { return registerServer(); });
}

STDAPI DllUnregisterServer() {
    return guardBoundary([] { return unregisterServer(); });
}
