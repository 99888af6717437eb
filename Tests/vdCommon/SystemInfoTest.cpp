#include "Utils/vdSystemInfo.h"

#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "Adobe/vdHost.h"
#include "Utils/vdResult.h"
#include "Utils/vdSessionHeader.h"
#include "Utils/vdText.h"
#include "Utils/vdVersion.h"

namespace {
using Registers = std::array<uint32_t, 4>;
/// Answers by leaf and sub-leaf; any other with zeros.
using CpuTable = std::map<std::pair<uint32_t, uint32_t>, Registers>;

constexpr uint32_t fourBytes(const char* text) {
    return static_cast<uint32_t>(static_cast<unsigned char>(text[0]) |
                                 static_cast<unsigned char>(text[1]) << 8 |
                                 static_cast<unsigned char>(text[2]) << 16) |
           static_cast<uint32_t>(static_cast<unsigned char>(text[3])) << 24;
}

/// Leaf 0 of a processor; `vendor` has 12 characters.
constexpr Registers leaf0(uint32_t highest, const char* vendor) {
    return {highest, fourBytes(vendor), fourBytes(vendor + 8), fourBytes(vendor + 4)};
}

vdCpuInfo describe(CpuTable table) {
    return describeCpu([&](uint32_t leaf, uint32_t subLeaf) { return table[{leaf, subLeaf}]; });
}
} // namespace

TEST(SystemInfo, CoresAndThreadsOfEveryKindOfProcessor) {
    const char* const intel = "GenuineIntel";
    const char* const amd = "AuthenticAMD";
    const struct {
        const char* vendor;
        uint32_t highest;       // leaf 0
        uint32_t flag, logical; // leaf 1
        uint32_t cores4;        // leaf 4, less one
        uint32_t threads11, logical11;
        uint32_t highestExtended, cores8; // leaf 0x80000008, less one
        const char* counts;               // threads per core, cores, logical
    } table[] = {
        {intel, 22, 1, 8, 3, 2, 16, 0, 0, "2 8 16"},
        {intel, 11, 1, 8, 3, 0, 4, 0, 0, "0 4 4"},  // no threads told: nothing to divide by
        {intel, 10, 1, 8, 3, 2, 16, 0, 0, "1 4 8"}, // leaf 11 lies beyond the highest
        {intel, 4, 1, 64, 63, 0, 0, 0, 0, "1 1 64"},
        {intel, 2, 1, 1, 3, 0, 0, 0, 0, "1 1 2"},
        {intel, 4, 0, 8, 3, 0, 0, 0, 0, "1 1 1"},
        {amd, 16, 1, 12, 0, 2, 16, 0x80000008, 5, "1 6 12"},
        {amd, 16, 1, 4, 0, 2, 16, 0x80000007, 5, "1 1 4"},
        {"CentaurHauls", 13, 1, 4, 3, 2, 16, 0x80000008, 5, "1 0 0"},
    };
    for (const auto& row : table) {
        const vdCpuInfo cpu = describe({{{0, 0}, leaf0(row.highest, row.vendor)},
                                        {{1, 0}, {0, row.logical << 16, 0, row.flag << 28}},
                                        {{4, 0}, {row.cores4 << 26, 0, 0, 0}},
                                        {{11, 0}, {0, row.threads11, 0x100, 0}},
                                        {{11, 1}, {0, row.logical11, 0x201, 0}},
                                        {{0x80000000, 0}, {row.highestExtended, 0, 0, 0}},
                                        {{0x80000008, 0}, {0, 0, row.cores8, 0}}});
        std::ostringstream counts;
        counts << cpu.threadsPerCore << " " << cpu.cores << " " << cpu.logicalProcessors;
        EXPECT_EQ(counts.str(), row.counts) << row.vendor << " " << row.highest;
        EXPECT_EQ(cpu.vendor, row.vendor);
    }
}

TEST(SystemInfo, FeatureFlagsComeFromTheirOwnBits) {
    const struct {
        uint32_t ecx, edx, ebx7;
        bool vdCpuInfo::*flag;
    } table[] = {
        {0, 1u << 28, 0, &vdCpuInfo::hyperThreading},
        {0, 1u << 25, 0, &vdCpuInfo::sse},
        {0, 1u << 26, 0, &vdCpuInfo::sse2},
        {1, 0, 0, &vdCpuInfo::sse3},
        {1u << 19, 0, 0, &vdCpuInfo::sse41},
        {1u << 20, 0, 0, &vdCpuInfo::sse42},
        {1u << 28, 0, 0, &vdCpuInfo::avx},
        {0, 0, 1u << 5, &vdCpuInfo::avx2},
    };
    for (const auto& row : table) {
        const vdCpuInfo cpu = describe({{{0, 0}, leaf0(7, "GenuineIntel")},
                                        {{1, 0}, {0, 0, row.ecx, row.edx}},
                                        {{7, 0}, {0, row.ebx7, 0, 0}}});
        for (const auto& other : table)
            EXPECT_EQ(cpu.*other.flag, other.flag == row.flag);
    }
    EXPECT_FALSE(describe({{{0, 0}, leaf0(6, "GenuineIntel")}, {{7, 0}, {0, 1u << 5, 0, 0}}}).avx2)
        << "a leaf beyond the highest holds another leaf's data";
}

TEST(SystemInfo, BrandIsReadInItsOrder) {
    const vdCpuInfo cpu = describe(
        {{{0x80000000, 0}, {0x80000004, 0, 0, 0}},
         {{0x80000002, 0}, {fourBytes("One "), fourBytes("two "), fourBytes("thre"), fourBytes("e fo")}},
         {{0x80000003, 0}, {fourBytes("ur f"), 0, 0, 0}}});
    EXPECT_EQ(cpu.brand.size(), 48u);
    EXPECT_STREQ(cpu.brand.c_str(), "One two three four f");
}

TEST(SystemInfo, WindowsNames) {
    const struct {
        int major, minor, servicePack;
        std::optional<uint32_t> build;
        const char* name;
    } table[] = {
        {10, 0, 0, 19045, "10 B19045"},
        {10, 0, 0, 21999, "10 B21999"},
        {10, 0, 0, 22000, "11 B22000"},
        {10, 0, 0, 22631, "11 B22631"},
        {10, 0, 0, {}, "10 or Greater"},
        {6, 3, 0, 9600, "8Point1"},
        {6, 2, 0, {}, "8 or 10"},
        {6, 1, 1, {}, "7SP1"},
        {6, 0, 1, {}, "Vista SP1"},
        {5, 2, 3, {}, "XPSP3"},
        {5, 1, 0, {}, "XP"},
        {5, 0, 4, {}, "Unknown"},
    };
    for (const auto& row : table) {
        const auto isAtLeast = [&](int major, int minor, int servicePack) {
            return std::tuple(row.major, row.minor, row.servicePack) >= std::tuple(major, minor, servicePack);
        };
        EXPECT_EQ(describeWindows(isAtLeast, row.build), row.name);
    }
    EXPECT_TRUE(isWindowsVersionOrGreater(6, 0, 0));
    EXPECT_FALSE(isWindowsVersionOrGreater(99, 0, 0));
}

TEST(SystemInfo, DriveThatDoesNotAnswerIsSaidSo) {
    std::ostringstream stream;
    writeDrive(stream, L"?:\\");
    EXPECT_EQ(stream.str(), "    - Drive ?:/ has :\n        - No answer from this drive\n");
}

TEST(SystemInfo, VersionsAndHosts) {
    EXPECT_EQ(versionToString({3, 1, 5, 0}), "3.1.5");
    EXPECT_EQ(versionToString({3, 1, 5, 2}), "3.1.5.beta2");
    EXPECT_EQ(versionToString({255, 2, 7, 0}), "Unknown Version. Infos : 2.7");
    EXPECT_EQ(versionToString({255, 2, 7, 1}), "Unknown Version. Infos : 2.7.beta1");
    EXPECT_EQ(hostAppName(vdHostApp::unknown), "Unknown");
    EXPECT_EQ(hostAppName(vdHostApp::desktop), "Desktop");
    EXPECT_EQ(hostAppName(static_cast<vdHostApp>(11)), "11");
    EXPECT_EQ(hostAppName(static_cast<vdHostApp>(255)), "255");
}

TEST(Result, TextsOfSystemDispatchAndUnknownCodes) {
    const struct {
        uint32_t code;
        const char* textOfOurs;
    } table[] = {
        {0x8007000E, nullptr}, // out of memory: the system's own text
        {0x80070002, nullptr}, // file not found
        {0x80040200, "Unknown error 0x80040200"},
        {0x80040205, "IDispatch error #5"},
        {0x8004A205, "IDispatch error #40965"},
        {0x8004FFFF, "IDispatch error #65023"},
        {0x80050000, "Unknown error 0x80050000"},
        {0x0ABCDEF0, "Unknown error 0xABCDEF0"},
    };
    for (const auto& [code, textOfOurs] : table) {
        wchar_t system[512] = {};
        FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, system,
                       512, nullptr);
        const std::string text = hresultText(static_cast<HRESULT>(code));
        // Which codes the system has a text for differs from system to system.
        if (textOfOurs == nullptr || system[0] != L'\0')
            EXPECT_EQ(text + "\r\n", utf16ToUtf8(system));
        else
            EXPECT_EQ(text, textOfOurs);
    }
}
