// clipforge-thumb doctor: why no thumbnail shows, and what helps.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Checks.h"
#include "CommandLine.h"

/// What one walk over all checks gave.
struct Diagnosis {
    std::vector<Finding> findings; ///< in the order of the checks
    bool isHealthy() const;        ///< no fault; advice may be there
};

/// Called before a check, with its title, and after it, with its note and the findings that it added.
struct DoctorListener {
    std::function<void(const wchar_t* title)> before;
    std::function<void(const Note& note, std::span<const Finding> added)> after;
};

/// Runs every check. `clip` is a full path or empty; `folder`, with a separator at its end, is where the
/// handler is looked for when it is not registered. COM is initialised on the calling thread.
Diagnosis diagnose(const std::wstring& clip, const std::wstring& folder, const DoctorListener& listener);

/// clipforge-thumb doctor [CLIP] [--fix [--yes]] [--json] [--folder FOLDER]
int runDoctor(Words words);
