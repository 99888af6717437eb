// Where the time and the memory of one thumbnail go: through the real handler with the reference decoder
// beside it.
//
// Our own time is what is left of GetThumbnail without the time inside the decoder library and without
// loading and unloading it. The library counts its own; loading and unloading are timed where the handler
// asks Windows for them. Compare ratios, not times: both sides of each come from the same run.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <windows.h>

#include <propsys.h>
#include <psapi.h>

#include "HandlerHost.h"
#include "Imports.h"
#include "ReferenceDecoderSession.h"
#include "TemporaryFolder.h"

namespace {

using Clock = std::chrono::steady_clock;
using Microsoft::WRL::ComPtr;

double microseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double g_loadingMicroseconds = 0;

template <class Call>
auto timedLoading(Call&& call) {
    const Clock::time_point start = Clock::now();
    const auto result = call();
    g_loadingMicroseconds += microseconds(Clock::now() - start);
    return result;
}

HMODULE WINAPI timedLoadLibraryExW(LPCWSTR name, HANDLE file, DWORD flags) {
    return timedLoading([&] { return LoadLibraryExW(name, file, flags); });
}

/// The handler asks for modules by name only when it looks for the library's helpers, before and after.
HMODULE WINAPI timedGetModuleHandleW(LPCWSTR name) {
    return timedLoading([&] { return GetModuleHandleW(name); });
}

BOOL WINAPI timedFreeLibrary(HMODULE module) {
    return timedLoading([&] { return FreeLibrary(module); });
}

/// A clip of `frames` frames. Only the first has a picture; the others are holes in the file behind their
/// headers.
void writeClip(const std::filesystem::path& path, uint32_t width, uint32_t height, uint32_t frames) {
    const std::string header = "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    const uint64_t frameBytes = header.size() + uint64_t{width} * height * 3;
    std::ofstream file(path, std::ios::binary);
    std::string row(size_t{width} * 3, '\0');
    for (uint32_t frame = 0; frame < frames; ++frame) {
        file.seekp(static_cast<std::streamoff>(frame * frameBytes));
        file << header;
        for (uint32_t y = 0; frame == 0 && y < height; ++y) {
            for (size_t i = 0; i < row.size(); ++i)
                row[i] = static_cast<char>(i * 7 + y * 3);
            file << row;
        }
    }
    file.close();
    std::filesystem::resize_file(path, frames * frameBytes);
}

struct Measurement {
    double wall = 0;    ///< microseconds of GetThumbnail
    double decoder = 0; ///< of it inside the decoder library
    double loading = 0; ///< of it loading and unloading it
    double own = 0;     ///< of it in our own code
};

class Bench {
public:
    explicit Bench(const std::filesystem::path& programs) {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        const std::wstring dll = (programs / "Clipforge_Thumbnails.dll").make_preferred();
        if (FAILED(m_handler.load(dll)))
            std::puts("the handler cannot be loaded");
        HMODULE module = GetModuleHandleW(L"Clipforge_Thumbnails.dll");
        replaceImport(module, "LoadLibraryExW", reinterpret_cast<void*>(&timedLoadLibraryExW));
        replaceImport(module, "GetModuleHandleW", reinterpret_cast<void*>(&timedGetModuleHandleW));
        replaceImport(module, "FreeLibrary", reinterpret_cast<void*>(&timedFreeLibrary));
    }

    bool measure(const std::filesystem::path& clip, UINT size, Measurement& measurement) {
        ComPtr<IInitializeWithFile> provider;
        ComPtr<IThumbnailProvider> thumbnails;
        m_handler.createHandler(IID_PPV_ARGS(&provider));
        if (!provider || FAILED(provider->Initialize(clip.c_str(), 0)) || FAILED(provider.As(&thumbnails)))
            return false;
        m_decoder.reset();
        g_loadingMicroseconds = 0;
        OwnedBitmap bitmap;
        WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
        const Clock::time_point start = Clock::now();
        const HRESULT result = thumbnails->GetThumbnail(size, bitmap.put(), &alpha);
        measurement.wall = microseconds(Clock::now() - start);
        DIBSECTION section{};
        if (result != S_OK || !isThumbnailBitmap(bitmap.get(), section))
            return false;
        bitmapBytes = static_cast<int64_t>(section.dsBm.bmWidthBytes) * section.dsBm.bmHeight;
        const ReferenceDecoderAccount account = m_decoder.account();
        peakResourceBytes = account.peakResourceBytes;
        // While the shell's thread waits in the library, the library's threads call back into our code.
        const auto callbacks =
            static_cast<double>(account.callbackNanoseconds - account.callbackLibraryNanoseconds) / 1e3;
        measurement.decoder = static_cast<double>(account.callerNanoseconds) / 1e3 - callbacks;
        measurement.loading = g_loadingMicroseconds;
        measurement.own = measurement.wall - measurement.decoder - measurement.loading;
        return true;
    }

    int64_t bitmapBytes = 0;
    int64_t peakResourceBytes = 0;

private:
    static void replaceImport(HMODULE module, const char* name, void* function) {
        if (void** const slot = importSlot(module, name))
            setImport(slot, function);
    }

    ReferenceDecoderSession m_decoder;
    HandlerLibrary m_handler;
};

bool reportTime(Bench& bench, const char* what, const std::filesystem::path& clip, UINT size, int runs) {
    std::vector<double> wall, decoder, loading, own, share;
    for (int run = 0; run <= runs; ++run) {
        Measurement m;
        if (!bench.measure(clip, size, m))
            return false;
        if (run == 0)
            continue; // warms the file cache
        wall.push_back(m.wall);
        decoder.push_back(m.decoder / m.wall * 100);
        loading.push_back(m.loading / m.wall * 100);
        own.push_back(m.own);
        share.push_back(m.own / m.wall * 100);
    }
    std::printf("%-34s %6u %10.1f ms %8.1f %% %8.1f %% %8.2f %% %8.0f us\n", what, size, median(wall) / 1000,
                median(decoder), median(loading), median(share), median(own));
    std::fflush(stdout);
    return true;
}

/// The two clips in turn, so that both see the same machine.
bool reportRatio(Bench& bench, const std::filesystem::path& one, const std::filesystem::path& thousand,
                 int runs) {
    std::vector<double> ratios;
    for (int run = 0; run < runs; ++run) {
        Measurement few, many;
        if (!bench.measure(one, 256, few) || !bench.measure(thousand, 256, many))
            return false;
        ratios.push_back(many.wall / few.wall);
    }
    std::printf("\n1536 x 864: a clip of a thousand frames takes %.2f times as long as one of one frame "
                "(median of %d)\n",
                median(ratios), runs);
    return true;
}

int64_t peakWorkingSet() {
    PROCESS_MEMORY_COUNTERS counters{};
    GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters);
    return static_cast<int64_t>(counters.PeakWorkingSetSize);
}

/// How far one thumbnail lifts the process's peak of resident memory above what a small one before it needed.
bool reportMemory(Bench& bench, const std::filesystem::path& small, const std::filesystem::path& large,
                  UINT size) {
    Measurement m;
    for (int warm = 0; warm < 3; ++warm)
        if (!bench.measure(small, size, m))
            return false;
    const int64_t smallBytes = bench.peakResourceBytes + bench.bitmapBytes;
    const int64_t before = peakWorkingSet();
    if (!bench.measure(large, size, m))
        return false;
    const int64_t risen = peakWorkingSet() - before;
    const int64_t needed = bench.peakResourceBytes + bench.bitmapBytes - smallBytes;
    std::printf(
        "peak memory of one thumbnail: risen by %.2f MiB, the decoder's buffers and the bitmap by %.2f MiB, "
        "the rest %.2f MiB\n",
        static_cast<double>(risen) / 1048576, static_cast<double>(needed) / 1048576,
        static_cast<double>(risen - needed) / 1048576);
    return true;
}

} // namespace

int wmain(int, wchar_t** arguments) {
    const std::filesystem::path programs = std::filesystem::absolute(arguments[0]).parent_path();
    const TemporaryFolder folder;
    const auto small = folder.path() / "small.braw";
    const auto large = folder.path() / "large.braw";
    const auto one = folder.path() / "one.braw";
    const auto thousand = folder.path() / "thousand.braw";
    writeClip(small, 64, 48, 1);
    writeClip(large, 6144, 3456, 1);
    writeClip(one, 1536, 864, 1);
    writeClip(thousand, 1536, 864, 1000);

    Bench bench(programs);
    bool good = reportMemory(bench, small, large, 256);
    std::printf("\n%-34s %6s %13s %10s %10s %10s %11s\n", "medians of one GetThumbnail", "size", "wall",
                "decoder", "loading", "our own", "our own");
    good &= reportTime(bench, "6144 x 3456, one frame", large, 256, 50);
    good &= reportTime(bench, "6144 x 3456, one frame", large, 500, 20);
    good &= reportTime(bench, "6144 x 3456, one frame", large, 3456, 20);
    good &= reportTime(bench, "1536 x 864, one frame", one, 256, 50);
    good &= reportRatio(bench, one, thousand, 50);
    if (!good)
        std::puts("a thumbnail failed");
    return good ? 0 : 1;
}
