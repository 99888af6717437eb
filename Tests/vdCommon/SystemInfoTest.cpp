#include "Utils/vdSystemInfo.h"

#include <map>
#include <sstream>
#include <tuple>

#include <gtest/gtest.h>

#include "Adobe/vdHostApp.h"
#include "Common.h"
#include "Utils/vdResult.h"
#include "Utils/vdSessionHeader.h"
#include "Utils/vdText.h"
#include "Utils/vdVersion.h"

namespace {
using Registers = std::array<uint32_t, 4>;

/// Leaf 0 of a processor; `vendor` has 12 characters.
Registers leaf0(uint32_t highest, const char* vendor) {
    Registers registers = {highest};
    std::memcpy(&registers[1], vendor, 4);
    std::memcpy(&registers[3], vendor + 4, 4);
    std::memcpy(&registers[2], vendor + 8, 4);
    return registers;
}

/// The table answers by leaf and sub-leaf; any other with zeros.
vdCpuInfo describe(std::map<std::pair<uint32_t, uint32_t>, Registers> table) {
    return describeCpu([&](uint32_t leaf, uint32_t subLeaf) { return table[{leaf, subLeaf}]; });
}
} // namespace

TEST(SystemInfo, CoresAndThreadsOfEveryKindOfProcessor) {
    const char *const intel = "GenuineIntel", *const amd = "AuthenticAMD";
    const struct {
        const char* vendor;
        uint32_t highest, flag1, logical1, coresLessOne4, threads11, logical11; // by leaf
        uint32_t highestExtended, coresLessOne8;
        const char* counts; // threads per core, cores, logical
    } table[] = {{intel, 22, 1, 8, 3, 2, 272, 0, 0, "2 136 272"},
                 {intel, 11, 1, 8, 3, 0, 4, 0, 0, "0 4 4"},
                 {intel, 10, 1, 8, 3, 2, 16, 0, 0, "1 4 8"},
                 {intel, 4, 0, 8, 3, 0, 0, 0, 0, "1 1 1"},
                 {intel, 4, 1, 1, 0, 0, 0, 0, 0, "1 1 2"},
                 {intel, 4, 1, 16, 63, 0, 0, 0, 0, "1 1 16"}, // one more than the field can tell
                 {intel, 4, 1, 200, 40, 0, 0, 0, 0, "1 41 200"},
                 {intel, 3, 1, 8, 3, 0, 0, 0, 0, "1 1 8"},
                 {amd, 16, 0, 12, 0, 0, 0, 0x80000008, 5, "1 1 1"},
                 {amd, 0, 1, 12, 0, 0, 0, 0x80000008, 5, "1 1 2"},
                 {amd, 16, 1, 12, 0, 2, 16, 0x80000008, 5, "1 6 12"},
                 {amd, 16, 1, 4, 0, 2, 16, 0x80000007, 5, "1 1 4"},
                 {"CentaurHauls", 13, 1, 4, 3, 2, 16, 0x80000008, 5, "1 0 0"}};
    for (const auto& row : table) {
        const vdCpuInfo cpu = describe({{{0, 0}, leaf0(row.highest, row.vendor)},
                                        {{1, 0}, {0, row.logical1 << 16, 0, row.flag1 << 28}},
                                        {{4, 0}, {row.coresLessOne4 << 26, 0, 0, 0}},
                                        {{11, 0}, {0, row.threads11, 0x100, 0}},
                                        {{11, 1}, {0, row.logical11, 0x201, 0}},
                                        {{0x80000000, 0}, {row.highestExtended, 0, 0, 0}},
                                        {{0x80000008, 0}, {0, 0, row.coresLessOne8, 0}}});
        std::ostringstream counts;
        counts << cpu.threadsPerCore << " " << cpu.cores << " " << cpu.logicalProcessors;
        EXPECT_EQ(cpu.vendor + " " + counts.str(), row.vendor + std::string(" ") + row.counts);
    }
}

TEST(SystemInfo, FeatureFlagsAndBrandComeFromTheirOwnPlaces) {
    const struct {
        uint32_t ecx, edx, ebx7;
        bool vdCpuInfo::*flag;
    } table[] = {{0, 1u << 28, 0, &vdCpuInfo::hyperThreading},
                 {0, 1u << 25, 0, &vdCpuInfo::sse},
                 {0, 1u << 26, 0, &vdCpuInfo::sse2},
                 {1, 0, 0, &vdCpuInfo::sse3},
                 {1u << 19, 0, 0, &vdCpuInfo::sse41},
                 {1u << 20, 0, 0, &vdCpuInfo::sse42},
                 {1u << 28, 0, 0, &vdCpuInfo::avx},
                 {0, 0, 1u << 5, &vdCpuInfo::avx2}};
    for (const auto& row : table) {
        const vdCpuInfo cpu = describe({{{0, 0}, leaf0(7, "GenuineIntel")},
                                        {{1, 0}, {0, 0, row.ecx, row.edx}},
                                        {{7, 0}, {0, row.ebx7, 0, 0}}});
        for (const auto& other : table)
            EXPECT_EQ(cpu.*other.flag, other.flag == row.flag);
    }
    EXPECT_STREQ(describe({{{0x80000000, 0}, {0x80000004}},
                           {{0x80000002, 0}, {0x20656E4F, 0x206F7774, 0x65726874, 0x6F662065}},
                           {{0x80000003, 0}, {0x66207275}}})
                     .brand.c_str(),
                 "One two three four f");
}

TEST(SystemInfo, WindowsNames) {
    constexpr struct {
        int major, minor, servicePack;
        const char* name;
    } table[] = {{10, 1, 0, "10 or Greater"},
                 {10, 0, 0, "10 or Greater"},
                 {6, 4, 0, "8Point1"},
                 {6, 3, 0, "8Point1"},
                 {6, 2, 0, "8 or 10"},
                 {6, 1, 1, "7SP1"},
                 {6, 1, 0, "7"},
                 {6, 0, 2, "Vista SP2"},
                 {6, 0, 1, "Vista SP1"},
                 {6, 0, 0, "Vista"},
                 {5, 1, 3, "XPSP3"},
                 {5, 1, 2, "XPSP2"},
                 {5, 1, 1, "XPSP1"},
                 {5, 1, 0, "XP"},
                 {5, 0, 4, "Unknown"}};
    for (const auto& [major, minor, servicePack, name] : table) {
        const auto isAtLeast = [mine = std::tuple(major, minor, servicePack)](int a, int b, int c) {
            return mine >= std::tuple(a, b, c);
        };
        EXPECT_EQ(describeWindows(isAtLeast, {}), name);
        EXPECT_EQ(describeWindows(isAtLeast, 21999), major >= 10 ? "10 B21999" : name);
        EXPECT_EQ(describeWindows(isAtLeast, 22000), major >= 10 ? "11 B22000" : name);
    }
}

TEST(SystemInfo, ProcessorLinesVersionsAndHosts) {
    bool vdCpuInfo::*const flags[] = {
        &vdCpuInfo::hyperThreading, &vdCpuInfo::sse,   &vdCpuInfo::sse2, &vdCpuInfo::sse3,
        &vdCpuInfo::sse41,          &vdCpuInfo::sse42, &vdCpuInfo::avx,  &vdCpuInfo::avx2};
    constexpr const char* labels[] = {
        "Is CPU Hyper threaded", "SSE", "SSE2", "SSE3", "SSE41", "SSE42", "AVX", "AVX2"};
    for (std::size_t set = 0; set < std::size(flags); ++set) {
        vdCpuInfo cpu{"GenuineIntel", std::string("Brand\0", 6), 2, 8, 16};
        cpu.*flags[set] = true;
        std::string expected = "         - CPU vendor : GenuineIntel\n         - CPU Brand String : Brand\n"
                               "         - Cores number : 8\n         - Logical cores number : 16\n";
        for (std::size_t i = 0; i < std::size(labels); ++i)
            expected += "         - " + std::string(labels[i]) + " : " + (i == set ? "1\n" : "0\n");
        std::ostringstream stream;
        writeProcessor(stream, cpu);
        EXPECT_EQ(stream.str(), expected);
    }
    EXPECT_EQ(versionToString({3, 1, 5, 0}), "3.1.5");
    EXPECT_EQ(versionToString({254, 10, 255, 2}), "254.10.255.beta2");
    EXPECT_EQ(versionToString({255, 2, 7, 1}), "Unknown Version. Infos : 2.7.beta1");
    std::string hosts;
    for (uint8_t value = 0; value < 12; ++value)
        hosts += hostAppName(static_cast<vdHostApp>(value)) + ",";
    EXPECT_EQ(hosts, "Unknown,Premiere Pro,Premiere Elements,After Effects,Adobe Media Encoder,Cotton Wood,"
                     "Prelude,Speed Grade,Audition,Character Animator,Desktop,11,");
}

TEST(Result, TextsOfSystemDispatchAndUnknownCodes) {
    wchar_t fileNotFound[512] = {};
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, 0x80070002, 0,
                   fileNotFound, 512, nullptr);
    EXPECT_EQ(hresultText(HRESULT_FROM_WIN32(2)) + "\r\n", utf16ToUtf8(fileNotFound));
    EXPECT_EQ(hresultText(HRESULT(0x8004A205)), "IDispatch error #40965");
    EXPECT_EQ(hresultText(HRESULT(0x8004FFFF)), "IDispatch error #65023");
    EXPECT_EQ(hresultText(HRESULT(0x80050000)), "Unknown error 0x80050000");
    EXPECT_EQ(hresultText(HRESULT(0x0ABCDEF0)), "Unknown error 0xABCDEF0");
}
