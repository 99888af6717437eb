// What the guard costs, and what it gains: thumbnails in process and by workers, in turn within one run.
//
// Compare ratios, not times: both sides of each come from moments that lie close together.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "HandlerHost.h"
#include "ReferenceDecoderSession.h"
#include "StandInRegistry.h"
#include "TemporaryFolder.h"
#include "TestClips.h"

namespace {

using Clock = std::chrono::steady_clock;

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct Roads {
    HandlerLibrary inProcess, guarded;
};

/// Milliseconds of GetThumbnail; 0 when there was no picture.
double take(const std::wstring& clip, UINT size, const HandlerLibrary& library) {
    const ThumbnailAnswer answer = askForThumbnail(clip, size, &library);
    return answer.result == S_OK ? answer.milliseconds : 0;
}

bool reportWarm(const Roads& roads, const std::filesystem::path& folder, uint32_t width, uint32_t height,
                UINT size, int pairs, double aim) {
    const std::wstring clip = folder / (std::to_wstring(width) + L".braw");
    writeTestClip(clip, {width, height});
    std::vector<double> ratios, alone, guarded;
    for (int i = -1; i < pairs; ++i) {
        const double one = take(clip, size, roads.inProcess), other = take(clip, size, roads.guarded);
        if (one == 0 || other == 0)
            return false;
        if (i < 0)
            continue; // warms the cache, and starts the worker
        alone.push_back(one);
        guarded.push_back(other);
        ratios.push_back(other / one);
    }
    std::printf("%5u x %-5u at %4u %9.1f ms %9.1f ms %8.3f  (aim: at most %.2f)\n", width, height, size,
                median(alone), median(guarded), median(ratios), aim);
    return true;
}

bool reportFirst(Roads& roads, const std::wstring& clip) {
    std::vector<double> alone, first;
    for (int i = 0; i < 15; ++i) {
        roads.guarded.call("DllCanUnloadNow"); // no worker is left
        first.push_back(take(clip, 36, roads.guarded));
        alone.push_back(take(clip, 36, roads.inProcess));
    }
    std::printf("\nthe first one, which starts a worker: %.0f ms more (median of %zu)\n",
                median(first) - median(alone), first.size());
    return *std::min_element(first.begin(), first.end()) > 0;
}

/// Seconds for all the clips.
double takeAll(const std::vector<std::wstring>& clips, const HandlerLibrary& library) {
    std::atomic<size_t> next = 0;
    std::atomic<bool> good = true;
    const Clock::time_point start = Clock::now();
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 8; ++i)
            threads.emplace_back([&] {
                CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
                for (size_t clip; (clip = next++) < clips.size();)
                    good = good & (take(clips[clip], 36, library) > 0);
                CoUninitialize();
            });
    }
    const std::chrono::duration<double> seconds = Clock::now() - start;
    return good ? seconds.count() : 0;
}

bool reportSlowReading(const Roads& roads, ReferenceDecoderSession& decoder,
                       const std::filesystem::path& folder) {
    std::vector<std::wstring> clips;
    for (int i = 0; i < 32; ++i) {
        clips.push_back(folder / ("slow " + std::to_string(i) + ".braw"));
        writeTestClip(clips.back(), {64, 36});
    }
    decoder.setReadDelay(200);
    const double guarded = takeAll(clips, roads.guarded), alone = takeAll(clips, roads.inProcess);
    decoder.setReadDelay(0);
    std::printf(
        "\n32 clips that take 200 ms to read, from 8 threads: %.2f s in process, %.2f s by 4 workers, "
        "%.2f times as fast  (aim: at least 3.5)\n",
        alone, guarded, guarded > 0 ? alone / guarded : 0);
    return alone > 0 && guarded > 0;
}

} // namespace

int wmain(int, wchar_t** arguments) {
    const std::filesystem::path programs = std::filesystem::absolute(arguments[0]).parent_path();
    const TemporaryFolder folder;
    const StandInRegistry registry;
    StandInRegistry::setNumber(HKEY_CURRENT_USER, L"Software\\Verdane\\Clipforge", L"Workers", 4);
    ReferenceDecoderSession decoder;
    decoder.shareWithChildProcesses();
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    Roads roads;
    if (FAILED(roads.inProcess.load((programs / "Clipforge_Thumbnails.dll").make_preferred())) ||
        FAILED(roads.guarded.load((programs / "Clipforge_Guard.dll").make_preferred())))
        return 1;
    std::printf("%-22s %12s %12s %8s\n", "medians, warm", "in process", "guarded", "ratio");
    const bool good = reportWarm(roads, folder.path(), 6144, 3456, 256, 31, 1.03) &&
                      reportWarm(roads, folder.path(), 64, 36, 36, 201, 1.15) &&
                      reportFirst(roads, folder.path() / "64.braw") &&
                      reportSlowReading(roads, decoder, folder.path());
    if (!good)
        std::puts("a thumbnail failed");
    return good ? 0 : 1;
}
