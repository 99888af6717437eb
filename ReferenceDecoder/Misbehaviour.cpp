#include "Misbehaviour.h"

#include <cstdlib>

#include <windows.h>

namespace reference {

namespace {

// NOLINTNEXTLINE(misc-no-recursion) that is what it is for
[[gnu::noinline]] DWORD overflowStack(DWORD depth) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    return depth == 0 ? 0 : overflowStack(depth - 1) + static_cast<DWORD>(frame[0]);
}

[[gnu::no_sanitize("undefined")]] void writeToNull() {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1; // NOLINT(clang-analyzer-core.NullDereference) so is this
}

DWORD WINAPI raise(void*) {
    RaiseException(0xE0000001, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    return 0;
}

/// Until so many MiB are taken or the system gives no more; they are never given back.
void eatMemory(int64_t mebibytes) {
    constexpr SIZE_T mebibyte = 1 << 20, page = 4096;
    for (int64_t eaten = 0; eaten < mebibytes; ++eaten) {
        auto* const bytes = static_cast<volatile char*>(HeapAlloc(GetProcessHeap(), 0, mebibyte));
        if (bytes == nullptr)
            return;
        for (SIZE_T i = 0; i < mebibyte; i += page)
            bytes[i] = 1;
    }
}

} // namespace

void misbehave(ReferenceDecoderFaultKind kind, int64_t value) {
    switch (kind) {
    case ReferenceDecoderFaultKind::nullWrite:
        return writeToNull();
    case ReferenceDecoderFaultKind::stackOverflow:
        overflowStack(MAXDWORD);
        break;
    case ReferenceDecoderFaultKind::abort:
        std::abort();
    case ReferenceDecoderFaultKind::failFast:
        asm volatile("int $0x29" : : "c"(7)); // what a fail-fast is to the processor; 7: a fatal exit
        break;
    case ReferenceDecoderFaultKind::terminate:
        TerminateProcess(GetCurrentProcess(), static_cast<UINT>(value));
        break;
    case ReferenceDecoderFaultKind::exceptionOnThread:
        WaitForSingleObject(CreateThread(nullptr, 0, raise, nullptr, 0, nullptr), INFINITE);
        break;
    case ReferenceDecoderFaultKind::hang:
        Sleep(INFINITE);
        break;
    case ReferenceDecoderFaultKind::eatMemory:
        return eatMemory(value);
    default:
        break;
    }
}

} // namespace reference
