#include "ThumbnailCommand.h"

#include <set>

#include <windows.h>

#include "Console.h"
#include "HandlerHost.h"
#include "Meanings.h"
#include "Paths.h"
#include "PngFile.h"
#include "Utils/vdCloudFile.h"

namespace {

struct Arguments {
    std::vector<std::wstring> clips; ///< as given
    std::optional<std::wstring> out; ///< a file or, always when there are several clips, a folder
    std::optional<std::wstring> dll;
    UINT size = 256;
};

UINT parseSize(const std::wstring& text) {
    unsigned long long value = 0;
    const bool isNumber = text.size() <= 10 && text.find_first_not_of(L"0123456789") == std::wstring::npos;
    if (isNumber)
        value = std::stoull(text);
    if (value == 0 || value > UINT_MAX)
        throw CommandError(L"--size needs a whole number of 1 or more, not \"" + text + L"\"", EXIT_USAGE);
    return static_cast<UINT>(value);
}

Arguments parse(Words words) {
    Arguments arguments;
    std::optional<std::wstring> size;
    const Option options[] = {{L"--size", &size}, {L"--out", &arguments.out}, {L"--dll", &arguments.dll}};
    arguments.clips = parseWords(words, options);
    if (arguments.clips.empty())
        throw CommandError(L"which clip? clipforge-thumb --help tells more", EXIT_USAGE);
    if (size)
        arguments.size = parseSize(*size);
    return arguments;
}

/// Where a clip's picture goes. In a folder it is called like the whole clip, so that no picture that a
/// person has there under the clip's name is written over.
std::wstring pictureOf(const std::wstring& clip, const std::wstring& out) {
    return isFolder(out) ? out + L"\\" + fileName(clip) + L".png" : out;
}

/// As Windows tells files apart: in any case of their letters they are the same.
struct NameOrder {
    bool operator()(const std::wstring& one, const std::wstring& other) const {
        return CompareStringOrdinal(one.data(), static_cast<int>(one.size()), other.data(),
                                    static_cast<int>(other.size()), TRUE) == CSTR_LESS_THAN;
    }
};

/// Before anything is written: no picture may fall on a clip or on another picture.
void checkPictures(const Arguments& arguments) {
    if (!arguments.out)
        return;
    const std::wstring out = fullPath(*arguments.out);
    if (arguments.clips.size() > 1 && !isFolder(out))
        throw CommandError(L"with several clips, --out needs a folder that exists", EXIT_USAGE);
    std::set<std::wstring, NameOrder> pictures;
    for (const std::wstring& clip : arguments.clips) {
        const std::wstring picture = pictureOf(fullPath(clip), out);
        for (const std::wstring& other : arguments.clips) {
            if (isSameFile(picture, fullPath(other)))
                throw CommandError(L"the picture would be written over the clip " + other, EXIT_USAGE);
        }
        if (!pictures.insert(picture).second)
            throw CommandError(L"two clips would write the same picture: " + picture, EXIT_USAGE);
    }
}

[[noreturn]] void failAsking(const std::wstring& clip, const ThumbnailAnswer& answer) {
    const std::wstring detail = std::wstring(answer.step) + L": " + describe(answer.result);
    if (answer.result == E_FAIL && wouldBeFetched(fullPath(clip).c_str()))
        throw CommandError(clip + L" lies in the cloud only, not on this computer (" + detail + L")");
    if (answer.result == E_FAIL || answer.result == E_OUTOFMEMORY) {
        if (const std::wstring kind = kindOfNoClip(fullPath(clip)); !kind.empty())
            throw CommandError(clip + L" is " + kind + L", not a clip (" + detail + L")");
    }
    const std::wstring meaning = meaningOf(answer.result);
    throw CommandError(clip + L": " + (meaning.empty() ? detail : meaning + L" (" + detail + L")"));
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

void makeThumbnail(const Arguments& arguments, const std::wstring& clip, const HandlerLibrary* library) {
    const std::wstring path = fullPath(clip);
    if (const std::wstring obstacle = clip.empty() ? L"a clip's name is empty" : obstacleTo(path);
        !obstacle.empty())
        throw CommandError(clip.empty() ? obstacle : clip + L" " + obstacle);
    const ThumbnailAnswer answer = askForThumbnail(path, arguments.size, library);
    if (FAILED(answer.result))
        failAsking(clip, answer);

    DIBSECTION section{};
    if (!isThumbnailBitmap(answer.bitmap.get(), section))
        throw CommandError(clip + L": the bitmap is not a 32-bit bottom-up DIB section");
    if (arguments.out) {
        const std::wstring picture = pictureOf(path, fullPath(*arguments.out));
        if (const HRESULT result = writePng(section, picture); FAILED(result))
            throw CommandError(picture + L" cannot be written: " + describe(result));
    }
    print((arguments.clips.size() > 1 ? clip + L": " : L"") + L"asked " + std::to_wstring(arguments.size) +
          L", got " + std::to_wstring(section.dsBmih.biWidth) + L" x " +
          std::to_wstring(section.dsBmih.biHeight) + L", " + alphaName(answer.alpha) + L", " +
          hexadecimal(answer.result) + L", " + decimal(answer.milliseconds, 1) + L" ms\n");
}

} // namespace

int runThumbnail(Words words) {
    const Arguments arguments = parse(words);
    checkPictures(arguments);
    HandlerLibrary library;
    if (arguments.dll) {
        if (const HRESULT result = library.load(fullPath(*arguments.dll)); FAILED(result))
            throw CommandError(*arguments.dll + L" cannot be loaded: " + describe(result));
    }
    int exitCode = EXIT_DONE;
    for (const std::wstring& clip : arguments.clips) {
        try {
            makeThumbnail(arguments, clip, arguments.dll ? &library : nullptr);
        } catch (const CommandError& error) {
            printError(error.line());
            exitCode = error.code();
        }
    }
    return exitCode;
}
