// The codes with which the guard itself fails a thumbnail. What the handler said is passed on as it is.
#pragma once

#include <windows.h>

constexpr HRESULT guardFailure(unsigned number) {
    return static_cast<HRESULT>(MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0C00 + number));
}

constexpr HRESULT GUARD_E_WORKER_MISSING = guardFailure(1);     ///< 0x80040C01: no worker beside the guard
constexpr HRESULT GUARD_E_WORKER_NOT_STARTED = guardFailure(2); ///< 0x80040C02: refused, or ended at once
constexpr HRESULT GUARD_E_WORKER_VERSION = guardFailure(3);     ///< 0x80040C03: not of the guard's version
constexpr HRESULT GUARD_E_HANDLER_MISSING = guardFailure(4);    ///< 0x80040C04: no handler beside the worker
constexpr HRESULT GUARD_E_HANDLER_NOT_LOADED = guardFailure(5); ///< 0x80040C05: the handler cannot be loaded
constexpr HRESULT GUARD_E_WORKER_DIED = guardFailure(6);        ///< 0x80040C06: while it made the picture
constexpr HRESULT GUARD_E_WORKER_TIMED_OUT = guardFailure(7);   ///< 0x80040C07: and was ended
constexpr HRESULT GUARD_E_WORKER_LIED = guardFailure(8); ///< 0x80040C08: its answer made no sense; ended
constexpr HRESULT GUARD_E_PICTURE_TOO_LARGE = guardFailure(9); ///< 0x80040C09: for the way to the shell
constexpr HRESULT GUARD_E_CLIP_KILLS = guardFailure(10); ///< 0x80040C0A: this clip ended a worker before
constexpr HRESULT GUARD_E_PAUSE = guardFailure(11);      ///< 0x80040C0B: three clips in a row ended a worker

/// Whether the guard failed the thumbnail, and not the handler.
constexpr bool isGuardFailure(HRESULT hr) {
    return guardFailure(0) < hr && hr <= GUARD_E_PAUSE;
}
