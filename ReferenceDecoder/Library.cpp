// The library's own frame: its entry point, and what it notes when it comes and goes.
#include <new>

#include "Crossing.h"
#include "ReferenceDecoder.h"

extern "C" IBlackmagicRawFactory* STDMETHODCALLTYPE CreateBlackmagicRawFactoryInstance() {
    return createReferenceDecoderFactory();
}

namespace {

/// A crossing that shows faults, but is not recorded: no call of anyone's.
template <reference::CallName name>
bool passes() {
    const reference::Crossing crossing(reference::callIndex<name>(), reference::Direction::intoLibrary,
                                       false);
    return !crossing.isCutShort();
}

} // namespace

/// Without memory for what it notes the library refuses to be loaded.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) try {
    auto& account = reference::account();
    if (reason == DLL_PROCESS_ATTACH) {
        ++account.loads;
        return passes<"DllMain::attach">();
    }
    if (reason == DLL_PROCESS_DETACH) {
        ++account.unloads;
        passes<"DllMain::detach">();
        if (account.liveReferences != 0 || account.liveResources != 0)
            ++account.unbalancedUnloads;
    }
    return TRUE;
} catch (const std::bad_alloc&) {
    return FALSE;
}
