// The first meeting with a decoder library: a child process walks its road call by call, and whatever becomes
// of the child, the parent tells which call it was and what that most likely means.
#pragma once

#include <functional>
#include <string>

#include <windows.h>

#include "CommandLine.h"

/// Full paths; `picture` may be empty. Without a clip the meeting ends before one would be opened.
struct ProbeRequest {
    std::wstring clip;
    std::wstring library;
    std::wstring picture;
    DWORD patience = 10'000; ///< milliseconds that one call may take
};

struct ProbeOutcome {
    bool isGood = false;
    std::wstring trouble; ///< the first call that is not as it must be, in one line; empty when all is well
    std::wstring meaning; ///< what that most likely means
    std::wstring advice;  ///< what to do next
    std::wstring sketch;  ///< the picture in lines of characters, if there was one
};

/// Walks the road in a child process and gives each call's row to `onRow`, as it ends. Takes as long as the
/// library does, at most `patience` a call.
ProbeOutcome probeLibrary(const ProbeRequest& request, const std::function<void(const std::wstring&)>& onRow);

/// clipforge-thumb probe CLIP [--library FILE] [--out FILE.png]
int runProbe(Words words);
/// What the child runs; no person calls it.
int runProbeChild(Words words);
