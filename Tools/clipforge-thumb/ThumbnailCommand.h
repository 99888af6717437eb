// clipforge-thumb CLIP...: the pictures that the shell would get.
#pragma once

#include "CommandLine.h"

/// Asks the handler for each clip's picture; gives the exit code. COM is initialised on the calling thread.
int runThumbnail(Words words);
