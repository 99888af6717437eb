#include "Utils/vdSystemInfo.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <cpuid.h>
#include <windows.h>

namespace {
constexpr bool bit(uint32_t value, int position) {
    return (value >> position & 1) != 0;
}

constexpr int32_t bits(uint32_t value, int lowest, int count) {
    return static_cast<int32_t>(value >> lowest & ((1u << count) - 1));
}

void appendRegister(std::string& text, uint32_t value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    text.append(bytes, sizeof bytes);
}

void readFeatures(vdCpuInfo& cpu, const vdCpuId& cpuId, uint32_t highestLeaf) {
    const auto [eax, ebx, ecx, edx] = cpuId(1, 0);
    cpu.hyperThreading = bit(edx, 28);
    cpu.sse = bit(edx, 25);
    cpu.sse2 = bit(edx, 26);
    cpu.sse3 = bit(ecx, 0);
    cpu.sse41 = bit(ecx, 19);
    cpu.sse42 = bit(ecx, 20);
    cpu.avx = bit(ecx, 28);
    // Beyond its highest leaf a processor answers with another leaf's data.
    cpu.avx2 = highestLeaf >= 7 && bit(cpuId(7, 0)[1], 5);
}

/// Counts from the extended topology leaf, which tells them as they are.
void readTopology(vdCpuInfo& cpu, const vdCpuId& cpuId) {
    constexpr int32_t threadLevel = 1;
    constexpr int32_t coreLevel = 2;
    for (uint32_t subLeaf = 0; subLeaf < 4; ++subLeaf) {
        const auto [eax, ebx, ecx, edx] = cpuId(11, subLeaf);
        if (const int32_t level = bits(ecx, 8, 8); level == threadLevel)
            cpu.threadsPerCore = bits(ebx, 0, 16);
        else if (level == coreLevel)
            cpu.logicalProcessors = bits(ebx, 0, 16);
    }
    cpu.cores = cpu.logicalProcessors / std::max(cpu.threadsPerCore, 1);
}

/// The older leaves count identifiers that a package may have, also where hyper-threading is missing.
void adjustCounts(vdCpuInfo& cpu) {
    if (!cpu.hyperThreading) {
        cpu.logicalProcessors = 1;
        cpu.cores = 1;
    } else if (cpu.cores <= 1) {
        cpu.logicalProcessors = std::max(cpu.logicalProcessors, 2);
        cpu.cores = 1;
    }
}

void readCounts(vdCpuInfo& cpu, const vdCpuId& cpuId, uint32_t highestLeaf) {
    std::string vendor = cpu.vendor;
    std::transform(vendor.begin(), vendor.end(), vendor.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    const bool intel = vendor.find("INTEL") != std::string::npos;
    if (!intel && vendor.find("AMD") == std::string::npos)
        return;
    if (intel && highestLeaf >= 11) {
        readTopology(cpu, cpuId);
        return;
    }
    if (highestLeaf >= 1) {
        cpu.logicalProcessors = bits(cpuId(1, 0)[1], 16, 8);
        if (!intel && cpuId(0x80000000, 0)[0] >= 0x80000008)
            cpu.cores = bits(cpuId(0x80000008, 0)[2], 0, 8) + 1;
    }
    if (intel && highestLeaf >= 4)
        cpu.cores = (bits(cpuId(4, 0)[0], 26, 6) + 1) & 63;
    adjustCounts(cpu);
}

/// The build that the system itself tells, whatever the process's manifest says.
std::optional<uint32_t> windowsBuild() {
    using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOW*);
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (ntdll == nullptr)
        return {};
    const auto rtlGetVersion = reinterpret_cast<RtlGetVersionFunction>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetVersion")));
    OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof version;
    if (rtlGetVersion == nullptr || rtlGetVersion(&version) != 0)
        return {};
    return version.dwBuildNumber;
}

struct WindowsName {
    uint16_t major;
    uint16_t minor;
    uint16_t servicePackMajor;
    std::string_view name;
};

/// Newest first: the first that holds names the system.
constexpr WindowsName windowsNames[] = {
    {6, 3, 0, "8Point1"},   {6, 2, 0, "8 or 10"},   {6, 1, 1, "7SP1"},  {6, 1, 0, "7"},
    {6, 0, 2, "Vista SP2"}, {6, 0, 1, "Vista SP1"}, {6, 0, 0, "Vista"}, {5, 1, 3, "XPSP3"},
    {5, 1, 2, "XPSP2"},     {5, 1, 1, "XPSP1"},     {5, 1, 0, "XP"},
};
} // namespace

vdCpuInfo describeCpu(const vdCpuId& cpuId) {
    vdCpuInfo cpu;
    const auto [highestLeaf, ebx, ecx, edx] = cpuId(0, 0);
    for (const uint32_t part : {ebx, edx, ecx})
        appendRegister(cpu.vendor, part);
    readFeatures(cpu, cpuId, highestLeaf);
    readCounts(cpu, cpuId, highestLeaf);
    if (cpuId(0x80000000, 0)[0] >= 0x80000004)
        for (const uint32_t leaf : {0x80000002u, 0x80000003u, 0x80000004u})
            for (const uint32_t part : cpuId(leaf, 0))
                appendRegister(cpu.brand, part);
    return cpu;
}

vdCpuInfo readCpuInfo() {
    return describeCpu([](uint32_t leaf, uint32_t subLeaf) {
        std::array<uint32_t, 4> parts = {};
        __cpuid_count(leaf, subLeaf, parts[0], parts[1], parts[2], parts[3]);
        return parts;
    });
}

bool isWindowsVersionOrGreater(uint16_t major, uint16_t minor, uint16_t servicePackMajor) {
    OSVERSIONINFOEXW wanted = {};
    wanted.dwOSVersionInfoSize = sizeof wanted;
    wanted.dwMajorVersion = major;
    wanted.dwMinorVersion = minor;
    wanted.wServicePackMajor = servicePackMajor;
    constexpr DWORD fields[] = {VER_MAJORVERSION, VER_MINORVERSION, VER_SERVICEPACKMAJOR};
    DWORD mask = 0;
    DWORDLONG conditions = 0;
    for (const DWORD field : fields) {
        mask |= field;
        conditions = VerSetConditionMask(conditions, field, VER_GREATER_EQUAL);
    }
    return VerifyVersionInfoW(&wanted, mask, conditions) != FALSE;
}

std::string describeWindows(const vdWindowsCheck& isAtLeast, std::optional<uint32_t> build) {
    constexpr uint32_t firstBuildOf11 = 22000;
    if (isAtLeast(10, 0, 0)) {
        if (!build)
            return "10 or Greater";
        return (*build < firstBuildOf11 ? "10 B" : "11 B") + std::to_string(*build);
    }
    for (const WindowsName& row : windowsNames)
        if (isAtLeast(row.major, row.minor, row.servicePackMajor))
            return std::string(row.name);
    return "Unknown";
}

std::string windowsName() {
    return describeWindows(isWindowsVersionOrGreater, windowsBuild());
}
