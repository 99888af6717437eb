// The library's own frame: its entry point, and what it notes when it comes and goes.
#include "Crossing.h"
#include "ReferenceDecoder.h"

extern "C" IBlackmagicRawFactory* STDMETHODCALLTYPE CreateBlackmagicRawFactoryInstance() {
    return createReferenceDecoderFactory();
}

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    auto& account = reference::account();
    if (reason == DLL_PROCESS_ATTACH)
        ++account.loads;
    if (reason == DLL_PROCESS_DETACH) {
        ++account.unloads;
        if (account.liveReferences != 0 || account.liveResources != 0)
            ++account.unbalancedUnloads;
    }
    return TRUE;
}
