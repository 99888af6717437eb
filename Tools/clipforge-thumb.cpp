// Asks the registered thumbnail handler, or a given DLL's, for a clip's picture, as the shell would.
#include <cwchar>
#include <cwctype>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "HandlerHost.h"
#include "PngFile.h"

namespace {

constexpr wchar_t kUsage[] = L"usage: clipforge-thumb CLIP [--size N] [--out FILE.png] [--dll PATH]\n";
enum ExitCode { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

struct Arguments {
    std::wstring clip;
    std::wstring out;
    std::wstring dll;
    UINT size = 256;
};

std::optional<UINT> parseSize(std::wstring_view text) {
    unsigned long long value = 0;
    if (text.empty() || text.size() > 10)
        return std::nullopt;
    for (const wchar_t digit : text) {
        if (digit < L'0' || digit > L'9')
            return std::nullopt;
        value = value * 10 + static_cast<unsigned>(digit - L'0');
    }
    if (value > UINT_MAX)
        return std::nullopt;
    return static_cast<UINT>(value);
}

std::optional<Arguments> parse(int count, wchar_t** values) {
    Arguments arguments;
    bool hasClip = false;
    for (int i = 1; i < count; ++i) {
        const std::wstring_view option = values[i];
        if (!option.starts_with(L"--")) {
            if (hasClip)
                return std::nullopt;
            arguments.clip = option;
            hasClip = true;
            continue;
        }
        if (++i == count)
            return std::nullopt;
        if (option == L"--size") {
            const std::optional<UINT> size = parseSize(values[i]);
            if (!size)
                return std::nullopt;
            arguments.size = *size;
        } else if (option == L"--out" && values[i][0] != L'\0') {
            arguments.out = values[i];
        } else if (option == L"--dll" && values[i][0] != L'\0') {
            arguments.dll = values[i];
        } else {
            return std::nullopt;
        }
    }
    return hasClip ? std::optional(arguments) : std::nullopt;
}

// An empty path stays one, so that the handler's own answer to it can be seen.
std::wstring fullPath(const std::wstring& path) {
    const DWORD size = path.empty() ? 0 : GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (size == 0)
        return path;
    std::wstring full(size, L'\0');
    full.resize(GetFullPathNameW(path.c_str(), size, full.data(), nullptr));
    return full;
}

// UTF-16 to a console, UTF-8 to a file or pipe.
void print(DWORD stream, const std::wstring& text) {
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

std::wstring hexadecimal(HRESULT result) {
    wchar_t text[16];
    swprintf(text, std::size(text), L"0x%08lX", static_cast<unsigned long>(result));
    return text;
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

int fail(const std::wstring& step, HRESULT result) {
    print(STD_ERROR_HANDLE,
          L"clipforge-thumb: " + step + L": " + hexadecimal(result) + L" " + systemText(result) + L"\n");
    return EXIT_FAILED;
}

const wchar_t* alphaName(WTS_ALPHATYPE alpha) {
    switch (alpha) {
    case WTSAT_RGB:
        return L"WTSAT_RGB";
    case WTSAT_ARGB:
        return L"WTSAT_ARGB";
    default:
        return L"WTSAT_UNKNOWN";
    }
}

void printAnswer(UINT size, const DIBSECTION& section, const ThumbnailAnswer& answer) {
    wchar_t milliseconds[32];
    swprintf(milliseconds, std::size(milliseconds), L"%.1f", answer.milliseconds);
    print(STD_OUTPUT_HANDLE, L"asked " + std::to_wstring(size) + L", got " +
                                 std::to_wstring(section.dsBmih.biWidth) + L" x " +
                                 std::to_wstring(section.dsBmih.biHeight) + L", " + alphaName(answer.alpha) +
                                 L", " + hexadecimal(answer.result) + L", " + milliseconds + L" ms\n");
}

int makeThumbnail(const Arguments& arguments) {
    HandlerLibrary library;
    if (!arguments.dll.empty()) {
        if (const HRESULT result = library.load(fullPath(arguments.dll)); FAILED(result))
            return fail(L"Loading " + arguments.dll, result);
    }
    const ThumbnailAnswer answer =
        askForThumbnail(fullPath(arguments.clip), arguments.size, arguments.dll.empty() ? nullptr : &library);
    if (FAILED(answer.result))
        return fail(answer.step, answer.result);

    DIBSECTION section{};
    if (!isThumbnailBitmap(answer.bitmap.get(), section)) {
        print(STD_ERROR_HANDLE, L"clipforge-thumb: the bitmap is not a 32-bit bottom-up DIB section\n");
        return EXIT_FAILED;
    }
    if (!arguments.out.empty()) {
        if (const HRESULT result = writePng(section, fullPath(arguments.out)); FAILED(result))
            return fail(L"Writing " + arguments.out, result);
    }
    printAnswer(arguments.size, section, answer);
    return EXIT_DONE;
}

int run(int count, wchar_t** values) {
    const std::optional<Arguments> arguments = parse(count, values);
    if (!arguments) {
        print(STD_ERROR_HANDLE, kUsage);
        return EXIT_USAGE;
    }
    const HRESULT result = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    if (FAILED(result))
        return fail(L"CoInitializeEx", result);
    const int exitCode = makeThumbnail(*arguments);
    CoUninitialize();
    return exitCode;
}

} // namespace

int wmain(int count, wchar_t** values) {
    try {
        return run(count, values);
    } catch (const std::bad_alloc&) {
        return fail(L"clipforge-thumb", E_OUTOFMEMORY);
    }
}
