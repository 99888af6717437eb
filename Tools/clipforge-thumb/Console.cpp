#include "Console.h"

#include <cwctype>
#include <iterator>

namespace {

void write(DWORD stream, std::wstring_view text) {
    const HANDLE handle = GetStdHandle(stream);
    DWORD mode = 0;
    DWORD written = 0;
    if (GetConsoleMode(handle, &mode)) {
        WriteConsoleW(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        return;
    }
    const int count = static_cast<int>(text.size());
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), count, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), count, bytes.data(), size, nullptr, nullptr);
    WriteFile(handle, bytes.data(), static_cast<DWORD>(size), &written, nullptr);
}

// Common answers that Wine, unlike Windows, has no texts for.
struct KnownText {
    HRESULT result;
    const wchar_t* text;
};
constexpr KnownText kKnownTexts[] = {
    {REGDB_E_CLASSNOTREG, L"Class not registered"},
    {E_UNEXPECTED, L"Catastrophic failure"},
    {CLASS_E_CLASSNOTAVAILABLE, L"ClassFactory cannot supply requested class"},
};

std::wstring systemText(HRESULT result) {
    wchar_t text[512];
    DWORD size =
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                       static_cast<DWORD>(result), 0, text, static_cast<DWORD>(std::size(text)), nullptr);
    while (size > 0 && iswspace(text[size - 1]))
        --size;
    if (size > 0)
        return {text, size};
    for (const KnownText& known : kKnownTexts) {
        if (known.result == result)
            return known.text;
    }
    return L"(the system has no text for it)";
}

} // namespace

void print(std::wstring_view text) {
    write(STD_OUTPUT_HANDLE, text);
}

void printError(std::wstring_view line) {
    write(STD_ERROR_HANDLE, L"clipforge-thumb: " + std::wstring(line) + L"\n");
}

std::wstring hexadecimal(HRESULT result) {
    wchar_t text[16];
    swprintf(text, std::size(text), L"0x%08lX", static_cast<unsigned long>(result));
    return text;
}

std::wstring describe(HRESULT result) {
    return hexadecimal(result) + L" " + systemText(result);
}

std::wstring decimal(double value, int digits) {
    wchar_t text[64];
    swprintf(text, std::size(text), L"%.*f", digits, value);
    return text;
}

HRESULT lastError() {
    return HRESULT_FROM_WIN32(GetLastError());
}
