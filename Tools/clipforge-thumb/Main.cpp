// Asks the registered thumbnail handler, or a given DLL's, as the shell would.
#include <algorithm>
#include <iterator>
#include <new>

#include <objbase.h>

#include "CommandLine.h"
#include "Console.h"
#include "CrashReport.h"
#include "Doctor.h"
#include "PictureChild.h"
#include "Probe.h"
#include "ThumbnailCommand.h"

namespace {

constexpr wchar_t kUsage[] =
    L"usage: clipforge-thumb CLIP... [--size N] [--out FILE.png | FOLDER] [--dll PATH]\n"
    L"       asks the handler for each clip's picture, as Explorer would, for a size of N (256), and writes\n"
    L"       it to FILE.png, or to FOLDER as CLIP.png. --dll asks a DLL that is not registered.\n"
    L"\n"
    L"       clipforge-thumb doctor [CLIP] [--fix [--yes]] [--json] [--folder FOLDER]\n"
    L"       tells why no thumbnail shows, and what helps; mends with --fix what it safely can.\n"
    L"\n"
    L"       clipforge-thumb probe CLIP [--library FILE] [--out FILE.png]\n"
    L"       tries a decoder library call by call, in a process of its own, and tells what does not fit.\n";

struct Command {
    std::wstring_view name;
    int (*run)(Words words);
};
int help(Words) {
    print(kUsage);
    return EXIT_DONE;
}
constexpr Command kCommands[] = {
    {L"doctor", runDoctor},          {L"probe", runProbe}, {L"picture-child", runPictureChild},
    {L"probe-child", runProbeChild}, {L"--help", help},
};

int run(Words words) {
    const auto* const command =
        words.empty() ? std::end(kCommands) : std::ranges::find(kCommands, words.front(), &Command::name);
    if (words.empty()) {
        print(kUsage);
        return EXIT_USAGE;
    }
    if (const HRESULT result = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); FAILED(result))
        throw CommandError(L"CoInitializeEx: " + describe(result));
    const int exitCode =
        command != std::end(kCommands) ? command->run(words.subspan(1)) : runThumbnail(words);
    CoUninitialize();
    return exitCode;
}

} // namespace

int wmain(int count, wchar_t** values) {
    reportCrashesOnOneLine();
    SetDllDirectoryW(L""); // no library comes from the current folder, which may be one of clips
    try {
        const std::vector<std::wstring_view> words(values + std::min(count, 1), values + count);
        return run(words);
    } catch (const CommandError& error) {
        printError(error.line());
        return error.code();
    } catch (const std::bad_alloc&) {
        printError(describe(E_OUTOFMEMORY));
        return EXIT_FAILED;
    }
}
