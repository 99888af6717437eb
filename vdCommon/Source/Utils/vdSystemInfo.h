// What the machine is: processor and Windows version.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

struct vdCpuInfo {
    std::string vendor;
    std::string brand;
    int32_t threadsPerCore = 1;
    int32_t cores = 0;
    int32_t logicalProcessors = 0;
    bool hyperThreading = false;
    bool sse = false;
    bool sse2 = false;
    bool sse3 = false;
    bool sse41 = false;
    bool sse42 = false;
    bool avx = false;
    bool avx2 = false;
};

/// EAX, EBX, ECX, EDX as the processor identification instruction gives them for a leaf and sub-leaf.
using vdCpuId = std::function<std::array<uint32_t, 4>(uint32_t leaf, uint32_t subLeaf)>;

/// Describes the processor that `cpuId` speaks for, by the leaves of the published x86 CPUID documentation.
vdCpuInfo describeCpu(const vdCpuId& cpuId);
/// Describes the processor of this machine. May throw.
vdCpuInfo readCpuInfo();

/// What Windows says of itself to this process: without a word on it in the process's manifest, no more
/// than 6.2.
bool isWindowsVersionOrGreater(uint16_t major, uint16_t minor, uint16_t servicePackMajor);

/// Tells whether Windows is at least of a major and minor version with a service pack's major version.
using vdWindowsCheck = std::function<bool(uint16_t major, uint16_t minor, uint16_t servicePackMajor)>;

/// "10 B19045", "11 B22631", "8Point1", "7SP1", ... by what `isAtLeast` says; `build` is asked for from
/// Windows 10 on, without value when it cannot be told.
std::string describeWindows(const vdWindowsCheck& isAtLeast, std::optional<uint32_t> build);
/// Describes the Windows that runs this process.
std::string windowsName();
