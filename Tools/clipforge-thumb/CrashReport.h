// A crash in a library that we were asked to load, told as everything else is.
#pragma once

/// From now on no error of this process opens a window, and a crash ends it with one line and EXIT_FAILED.
/// For the program's start: the setting is the process's and stays.
void reportCrashesOnOneLine();
