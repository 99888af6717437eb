// The guard that stands at every boundary of the module.
#pragma once

#include <new>

#include <windows.h>

/// Runs `work`, which gives an HRESULT, and turns an exception into one: nothing ever leaves the module, a
/// COM entry or a callback as an exception.
template <class Work>
HRESULT guardBoundary(Work&& work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}
