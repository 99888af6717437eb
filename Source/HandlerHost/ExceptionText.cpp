#include "ExceptionText.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>
#include <iterator>

namespace {

struct KnownException {
    DWORD code;
    const wchar_t* text;
};
constexpr KnownException kKnownExceptions[] = {
    {EXCEPTION_STACK_OVERFLOW, L"the stack ran over"},
    {EXCEPTION_ILLEGAL_INSTRUCTION, L"an instruction that this processor does not know"},
    {EXCEPTION_PRIV_INSTRUCTION, L"an instruction that is not allowed"},
    {EXCEPTION_INT_DIVIDE_BY_ZERO, L"a division by zero"},
    {EXCEPTION_BREAKPOINT, L"a breakpoint"},
    {STATUS_HEAP_CORRUPTION, L"a damaged heap"},
    {STATUS_STACK_BUFFER_OVERRUN, L"a failure that the program found itself"},
    {0xE06D7363, L"a C++ exception that nobody caught"},
    {0x20474343, L"a C++ exception that nobody caught"},
};

/// What an access violation did, from the record's first parameter.
const wchar_t* accessOf(ULONG_PTR kind) {
    switch (kind) {
    case 0:
        return L"reading";
    case 1:
        return L"writing";
    default:
        return L"executing";
    }
}

void describeKind(const EXCEPTION_RECORD& record, std::span<wchar_t> text) {
    if (record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION && record.NumberParameters >= 2) {
        std::swprintf(text.data(), text.size(), L"access violation %ls 0x%llX",
                      accessOf(record.ExceptionInformation[0]),
                      static_cast<unsigned long long>(record.ExceptionInformation[1]));
        return;
    }
    const auto* const known =
        std::ranges::find(kKnownExceptions, record.ExceptionCode, &KnownException::code);
    if (known != std::end(kKnownExceptions))
        std::swprintf(text.data(), text.size(), L"%ls", known->text);
    else
        std::swprintf(text.data(), text.size(), L"exception 0x%08lX", record.ExceptionCode);
}

} // namespace

void describeException(const EXCEPTION_RECORD& record, std::span<wchar_t> text) {
    HMODULE module = nullptr;
    wchar_t file[MAX_PATH] = {};
    const bool isKnown = GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                            static_cast<const wchar_t*>(record.ExceptionAddress), &module) &&
                         GetModuleFileNameW(module, file, MAX_PATH) != 0;
    describeKind(record, text);
    const std::span<wchar_t> rest = text.subspan(std::wcslen(text.data()));
    const auto offset = static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(record.ExceptionAddress) -
                                                        reinterpret_cast<uintptr_t>(module));
    const wchar_t* const name = std::wcsrchr(file, L'\\');
    if (isKnown && name != nullptr)
        std::swprintf(rest.data(), rest.size(), L" in %ls+0x%llX", name + 1, offset);
    else
        std::swprintf(rest.data(), rest.size(), L" at 0x%llX, where no library lies", offset);
}
