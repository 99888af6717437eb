// This program once more.
#pragma once

#include <string>
#include <vector>

#include "ChildProcess.h"

class OwnChild : public ChildProcess {
public:
    /// Throws CommandError when it cannot be started.
    explicit OwnChild(const std::vector<std::wstring>& arguments);
};
