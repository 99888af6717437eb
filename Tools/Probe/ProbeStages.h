// The road of a first meeting as a table: each call on it, what it is for, and what its failure most likely
// means.
#pragma once

#include <cstring>
#include <span>
#include <string>

#include <BlackmagicRawAPI.h>

namespace probe {

class Meeting;

/// Which thread walks a stage, and when.
enum class Segment { starting, opening, readComplete, decodeComplete, processComplete, closing };

/// What helps when a stage fails.
enum class Remedy { library, declarations, clip, report };

/// How a call came out. A doubt says why a success cannot be true.
struct Outcome {
    HRESULT result = S_OK;
    std::wstring value;
    std::wstring doubt;
};

struct Stage {
    Segment segment;
    const wchar_t* interfaceName; ///< empty for what is no interface's
    const wchar_t* operation;
    const wchar_t* note;         ///< which of several such calls; may be empty
    int (*slot)();               ///< null where there is none
    const GUID& (*identifier)(); ///< that the call asks for, or that its interface was asked for by; or null
    bool isNeeded;               ///< without it there is no picture, or a wrong one
    Remedy remedy;
    const wchar_t* meaning; ///< of a failure
    Outcome (*run)(Meeting& meeting);
};

/// In the order of the road, segment by segment.
std::span<const Stage> stages();

/// The place of an operation in its interface's table, as this program was compiled: a pointer to a virtual
/// member holds its offset in the table, plus one.
template <class Operation>
int slotOf(Operation operation) {
    intptr_t offset = 0;
    std::memcpy(&offset, &operation, sizeof offset);
    return static_cast<int>((offset - 1) / static_cast<intptr_t>(sizeof(void*)));
}

template <class Interface>
const GUID& identifierOf() {
    return __uuidof(Interface);
}

} // namespace probe
