#pragma once

#include "ReferenceDecoderControl.h"

namespace reference {

/// Ends the process, stops the calling thread for good or eats memory, as the fault says. Returns where the
/// fault is another, and after memory was eaten.
void misbehave(ReferenceDecoderFaultKind kind, int64_t value);

} // namespace reference
