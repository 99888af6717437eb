#include "Transport.h"

#include <cstdio>
#include <cwchar>

#include "Utils/vdBuildVersion.h"

namespace {
constexpr wchar_t version[] = L"" CLIPFORGE_VERSION_TEXT;

unsigned long long number(HANDLE handle) {
    return reinterpret_cast<uintptr_t>(handle);
}
} // namespace

uint64_t transportHash(const void* data, size_t bytes) noexcept {
    uint64_t value = 0xCBF29CE484222325;
    for (size_t i = 0; i < bytes; ++i)
        value = (value ^ static_cast<const uint8_t*>(data)[i]) * 0x100000001B3;
    return value | 1;
}

std::wstring workerArguments(const WorkerHandles& handles) {
    wchar_t text[128];
    std::swprintf(text, std::size(text), L"%ls %llx %llx %llx %llx", version, number(handles.section),
                  number(handles.question), number(handles.answer), number(handles.guard));
    return text;
}

std::optional<WorkerHandles> parseWorkerArguments(const wchar_t* arguments) {
    wchar_t from[32] = {};
    unsigned long long section = 0, question = 0, answer = 0, guard = 0;
    if (std::swscanf(arguments, L"%31ls %llx %llx %llx %llx", from, &section, &question, &answer, &guard) !=
            5 ||
        std::wcscmp(from, version) != 0)
        return std::nullopt;
    const auto handle = [](unsigned long long value) {
        return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(value));
    };
    return WorkerHandles{handle(section), handle(question), handle(answer), handle(guard)};
}
