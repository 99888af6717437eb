// The decoder in the caller's own process, without a library to load.
#pragma once

#include <BlackmagicRawAPI.h>

/// What the library's entry point gives: a factory with one reference, or null.
IBlackmagicRawFactory* STDMETHODCALLTYPE createReferenceDecoderFactory();
