// Asks a handler for a picture in a process of its own: whatever the handler does there, the doctor goes on.
#pragma once

#include <string>

#include <windows.h>

#include "CommandLine.h"

/// What became of the question.
struct PictureAnswer {
    bool isGood = false;
    HRESULT result = E_FAIL; ///< what its process ended with: the handler's failure, or what it crashed with;
                             ///< ERROR_TIMEOUT when it did not end
    std::wstring trouble;    ///< in one line, when it is not
    double milliseconds = 0; ///< with the start of the process
};

/// Full paths. Takes at most a minute. Throws CommandError when no process can be started.
PictureAnswer askInChild(const std::wstring& handler, const std::wstring& clip);

/// What the child runs; no person calls it.
int runPictureChild(Words words);
