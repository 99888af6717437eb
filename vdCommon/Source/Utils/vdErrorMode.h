// Keeps Windows from asking the user.
#pragma once

#include <windows.h>

/// While it lives, what this thread loads and opens gives its error to the caller. Otherwise Windows may stop
/// the host with a dialog, for a drive without a medium as for a damaged library, and nobody may be there to
/// answer it. Other threads keep their mode.
class vdQuietErrors {
public:
    vdQuietErrors() noexcept {
        SetThreadErrorMode(GetThreadErrorMode() | SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX,
                           &m_previous);
    }
    ~vdQuietErrors() { SetThreadErrorMode(m_previous, nullptr); }
    vdQuietErrors(const vdQuietErrors&) = delete;
    vdQuietErrors& operator=(const vdQuietErrors&) = delete;

private:
    DWORD m_previous = 0;
};
