#include "OwnChild.h"

#include "Console.h"
#include "Paths.h"

OwnChild::OwnChild(const std::vector<std::wstring>& arguments) : ChildProcess(programPath(), arguments) {
    if (started() != S_OK)
        throw CommandError(L"a child process cannot be started: " + describe(started()));
}
