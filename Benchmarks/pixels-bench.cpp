// How fast images are delivered, as ratios to memcpy measured in turn with it, and what a log line that is
// switched off costs. All is measured and printed, whatever misses its target; a miss counts when it repeats.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

#include <windows.h>

#include "Request.h"
#include "Utils/vdClock.h"
#include "Utils/vdLogging.h"

namespace {
constexpr uint32_t width = 3840;
constexpr uint32_t height = 2160;
constexpr size_t pixels = size_t{width} * height;
constexpr int rounds = 20;
constexpr int attempts = 3;

class BenchRequest final : public vdBRAW_Request {
public:
    void onFinished() override {}
};

/// Committed and touched, so that no round pays for page faults.
struct Memory {
    explicit Memory(size_t size) : bytes(new uint8_t[size]) { std::memset(bytes.get(), 0x5A, size); }
    std::unique_ptr<uint8_t[]> bytes;
};

double milliseconds(const std::function<void()>& work) {
    const int64_t start = monotonicNanoseconds();
    work();
    return static_cast<double>(monotonicNanoseconds() - start) / 1e6;
}

double median(std::vector<double> times) {
    std::sort(times.begin(), times.end());
    return (times[(times.size() - 1) / 2] + times[times.size() / 2]) / 2;
}

struct Comparison {
    double workMs, referenceMs;
    double ratio;   ///< of the work's time to the reference's
    double fastest; ///< the same of each one's fastest round
};

/// Medians over rounds in which the two take turns. The ratio is that of the two halves of a round. A busy
/// machine hits the longer half more often; it can only add to a time, and so leaves the fastest rounds
/// alone.
Comparison sideBySide(const std::function<void()>& work, const std::function<void()>& reference) {
    std::vector<double> workTimes;
    std::vector<double> referenceTimes;
    std::vector<double> ratios;
    work();
    reference();
    for (int i = 0; i < rounds; ++i) {
        workTimes.push_back(milliseconds(work));
        referenceTimes.push_back(milliseconds(reference));
        ratios.push_back(workTimes.back() / referenceTimes.back());
    }
    const double fastest = *std::min_element(workTimes.begin(), workTimes.end()) /
                           *std::min_element(referenceTimes.begin(), referenceTimes.end());
    return {median(workTimes), median(referenceTimes), median(ratios), fastest};
}

/// Measures again while both ratios are above `limit`, `attempts` times at most: a busy machine spoils one,
/// slow code all of them. `print` is given each, and what is to be said of it. False when all were above.
bool staysWithin(double limit, const std::function<void()>& work, const std::function<void()>& reference,
                 const std::function<void(const Comparison&, const char*)>& print) {
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        const Comparison comparison = sideBySide(work, reference);
        const bool met = std::min(comparison.ratio, comparison.fastest) <= limit;
        print(comparison, met ? "" : attempt < attempts ? "  once more" : "  MISSED");
        if (met)
            return true;
    }
    return false;
}

struct Case {
    const char* name;
    uint32_t code;
    uint8_t sourceBytes;
    uint8_t finalBytes;
    bool padded;     ///< final rows end in 64 bytes that are not pixels
    uint32_t shrink; ///< final size = size / shrink
    double target;   ///< of memcpy's rate
};

constexpr Case cases[] = {
    {"1  copy 8-bit", 1, 4, 4, false, 1, 0.95},
    {"1  copy 8-bit, rows", 1, 4, 4, true, 1, 0.95},
    {"7  copy float", 7, 16, 16, false, 1, 0.95},
    {"7  copy float, rows", 7, 16, 16, true, 1, 0.95},
    {"21 copy 8-bit", 21, 4, 4, false, 1, 0.95},
    {"21 copy 8-bit, rows", 21, 4, 4, true, 1, 0.95},
    {"2  RGBA 8 to ARGB 8, flipped", 2, 4, 4, false, 1, 0.7},
    {"4  BGRA 16", 4, 8, 8, false, 1, 0.7},
    {"12 RGBA 8 to ARGB 8", 12, 4, 4, false, 1, 0.7},
    {"12 RGBA 8 to ARGB 8, rows", 12, 4, 4, true, 1, 0.7},
    {"13 RGBA 16 to ARGB 16", 13, 8, 8, false, 1, 0.7},
    {"14 RGB float to ARGB float", 14, 12, 16, false, 1, 0.7},
    // Against memcpy of the whole source frame; the other downscales for comparison.
    {"15 BGRA 8 by 2", 15, 4, 4, false, 2, 1},
    {"22 RGBA 8 by 2", 22, 4, 4, false, 2, 1},
    {"9  RGBA 8 to ARGB 8 by 2", 9, 4, 4, false, 2, 1},
    {"16 BGRA 16 by 2", 16, 8, 8, false, 2, 0},
    {"10 RGBA 16 to ARGB 16 by 2", 10, 8, 8, false, 2, 0},
    {"17 BGRA float by 2", 17, 16, 16, false, 2, 0},
    {"11 RGB float to ARGB float by 2", 11, 12, 16, false, 2, 0},
};

void configure(vdBRAW_Request& request, const Case& bench, void* source, void* finalImage) {
    request.m_bufferManager = std::make_unique<brBufferManager>(
        nullptr, nullptr, nullptr, blackmagicRawResourceTypeBufferCPU, nullptr, nullptr);
    request.m_bufferManager->m_processedBuffer.resource = source;
    request.m_bufferManager->m_processedBuffer.capacity = static_cast<uint32_t>(pixels * bench.sourceBytes);
    request.m_bufferManager->m_finalImageBuffer = finalImage;
    request.m_pxlConvAlgo = bench.code;
    request.m_resourceBytesPerPixel = bench.sourceBytes;
    request.m_processedWidth = width;
    request.m_processedHeight = height;
    request.m_width = width / bench.shrink;
    request.m_height = height / bench.shrink;
    request.m_rowBytes = static_cast<int32_t>(request.m_width * bench.finalBytes + (bench.padded ? 64 : 0));
    request.m_renderRect = {0, 0, static_cast<int32_t>(request.m_width),
                            static_cast<int32_t>(request.m_height)};
    request.m_downscaleX = request.m_downscaleY = static_cast<float>(bench.shrink);
}

bool benchPixels() {
    const Memory source(pixels * 16);
    const Memory finalImage(pixels * 16 + 64 * height);
    std::printf("Delivery of a %u x %u frame, one thread, median of %d, beside memcpy of as many bytes read "
                "plus written\n(downscales: beside memcpy of the whole source frame)\n\n",
                width, height, rounds);
    std::printf("%-34s %9s %9s %8s %8s %8s\n", "conversion", "ms", "memcpy ms", "rate", "fastest", "target");
    bool allMet = true;
    for (const Case& bench : cases) {
        BenchRequest request;
        configure(request, bench, source.bytes.get(), finalImage.bytes.get());
        const size_t copied =
            pixels *
            (bench.shrink > 1 ? bench.sourceBytes : (size_t{bench.sourceBytes} + bench.finalBytes) / 2);
        const double limit = bench.target > 0 ? 1 / bench.target : std::numeric_limits<double>::infinity();
        allMet &= staysWithin(
            limit, [&] { request.HeavyProcessing(); },
            [&] { std::memcpy(finalImage.bytes.get(), source.bytes.get(), copied); },
            [&](const Comparison& is, const char* remark) {
                std::printf("%-34s %9.2f %9.2f %7.0f%% %7.0f%% %7.0f%%%s\n", bench.name, is.workMs,
                            is.referenceMs, 100 / is.ratio, 100 / is.fastest, bench.target * 100, remark);
                std::fflush(stdout);
            });
        request.m_bufferManager->m_processedBuffer = {}; // ours, not the decoder's
    }
    return allMet;
}

// The two loops differ in the line alone. Both change something that the compiler must keep.
constexpr uint32_t loops = 100'000'000;
volatile uint32_t g_plainThreshold = 5;

__attribute__((noinline)) uint32_t loopWithLogLine() {
    uint32_t work = 1;
    for (uint32_t i = 0; i < loops; ++i) {
        work = work * 1664525 + i;
        VD_LOG_INFO("value " << work);
    }
    return work;
}

__attribute__((noinline)) uint32_t loopWithComparison() {
    uint32_t work = 1;
    uint32_t passed = 0;
    for (uint32_t i = 0; i < loops; ++i) {
        work = work * 1664525 + i;
        if (2 >= g_plainThreshold) [[unlikely]]
            passed += work;
    }
    return work + passed;
}

bool benchLogLine() {
    volatile uint32_t sink = 0;
    constexpr double target = 1.1;
    return staysWithin(
        target, [&] { sink = loopWithLogLine(); }, [&] { sink = loopWithComparison(); },
        [](const Comparison& is, const char* remark) {
            std::printf(
                "\n%u loops with a log line that is off: %.1f ms; with an integer comparison: %.1f ms; "
                "ratio %.3f, of the fastest %.3f, target %.1f%s\n",
                loops, is.workMs, is.referenceMs, is.ratio, is.fastest, target, remark);
        });
}
} // namespace

int main() {
    const bool pixelsMet = benchPixels();
    const bool logMet = benchLogLine();
    return pixelsMet && logMet ? 0 : 1;
}
