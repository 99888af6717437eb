#include "Utils/vdSessionHeader.h"

#include <array>
#include <ctime>
#include <cwchar>
#include <exception>
#include <iterator>

#include <windows.h>

#include "Utils/vdProduct.h"

namespace {
void writeSystem(std::ostream& stream) {
    SYSTEM_INFO info = {};
    GetSystemInfo(&info);
    stream << "     - System : \n"
           << "         - OEM ID: " << info.dwOemId << "\n"
           << "         - Number of processors: " << info.dwNumberOfProcessors << "\n"
           << "         - Page size: " << info.dwPageSize << "\n"
           << "         - Processor type: " << info.dwProcessorType << "\n"
           << "         - Minimum application address: " << info.lpMinimumApplicationAddress << "\n"
           << "         - Maximum application address: " << info.lpMaximumApplicationAddress << "\n"
           << "         - Active processor mask: " << info.dwActiveProcessorMask << "\n";
}

/// Of this machine's processor.
void writeCpu(std::ostream& stream) {
    vdCpuInfo cpu;
    try {
        cpu = readCpuInfo();
    } catch (...) {
        stream << "         - CPU : Impossible to get CPU INFOs\n";
        return;
    }
    writeProcessor(stream, cpu);
}

bool isWorkstation() {
    OSVERSIONINFOEXW wanted = {};
    wanted.dwOSVersionInfoSize = sizeof wanted;
    wanted.wProductType = VER_NT_WORKSTATION;
    return VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE,
                              VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL)) != FALSE;
}

void writeWindows(std::ostream& stream) {
    stream << "     - OS Version : \n"
           << "        - Windows " << windowsName() << (isWorkstation() ? " - Client" : " - Server") << "\n";
}

struct MemoryFigure {
    DWORDLONG MEMORYSTATUSEX::*bytes;
    const char* label;
};

constexpr MemoryFigure memoryFigures[] = {
    {&MEMORYSTATUSEX::ullTotalPhys, " total KB of physical memory\n"},
    {&MEMORYSTATUSEX::ullAvailPhys, " free  KB of physical memory\n"},
    {&MEMORYSTATUSEX::ullTotalPageFile, " total KB of paging file\n"},
    {&MEMORYSTATUSEX::ullAvailPageFile, " free  KB of paging file\n"},
    {&MEMORYSTATUSEX::ullTotalVirtual, " total KB of virtual memory\n"},
    {&MEMORYSTATUSEX::ullAvailVirtual, " free  KB of virtual memory\n"},
    {&MEMORYSTATUSEX::ullAvailExtendedVirtual, " free  KB of extended memory\n"},
};

void writeMemory(std::ostream& stream) {
    MEMORYSTATUSEX status = {};
    status.dwLength = sizeof status;
    GlobalMemoryStatusEx(&status);
    stream << "     - Memory : \n"
           << "        - There is  " << status.dwMemoryLoad << " percent of memory in use\n";
    for (const auto& [bytes, label] : memoryFigures)
        stream << "        - There are  " << (status.*bytes >> 10) << label;
}

void writeDriveSize(std::ostream& stream, const char* label, ULONGLONG bytes) {
    constexpr float gigabytesPerByte = 1.0f / 1073741824.0f;
    stream << label << bytes << "(" << static_cast<float>(bytes) * gigabytesPerByte << " GB)\n";
}

void writeDrives(std::ostream& stream) {
    std::array<wchar_t, 260> roots = {};
    const DWORD length = GetLogicalDriveStringsW(static_cast<DWORD>(roots.size()), roots.data());
    if (length >= roots.size())
        return;
    for (const wchar_t* root = roots.data(); *root != L'\0'; root += std::wcslen(root) + 1)
        writeDrive(stream, root);
}
} // namespace

std::string localDateTimeText() {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    char text[64] = {};
    if (localtime_s(&local, &now) == 0)
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

void writeProcessor(std::ostream& stream, const vdCpuInfo& cpu) {
    // The brand is padded with zeros, which have no place in a text file.
    stream << "         - CPU vendor : " << cpu.vendor << "\n"
           << "         - CPU Brand String : " << cpu.brand.c_str() << "\n"
           << "         - Cores number : " << cpu.cores << "\n"
           << "         - Logical cores number : " << cpu.logicalProcessors << "\n"
           << "         - Is CPU Hyper threaded : " << cpu.hyperThreading << "\n"
           << "         - SSE : " << cpu.sse << "\n"
           << "         - SSE2 : " << cpu.sse2 << "\n"
           << "         - SSE3 : " << cpu.sse3 << "\n"
           << "         - SSE41 : " << cpu.sse41 << "\n"
           << "         - SSE42 : " << cpu.sse42 << "\n"
           << "         - AVX : " << cpu.avx << "\n"
           << "         - AVX2 : " << cpu.avx2 << "\n";
}

void writeDrive(std::ostream& stream, const wchar_t* root) {
    stream << "    - Drive " << static_cast<char>(root[0]) << ":/ has :\n";
    ULARGE_INTEGER total = {};
    ULARGE_INTEGER available = {};
    if (!GetDiskFreeSpaceExW(root, nullptr, &total, &available)) {
        stream << "        - No answer from this drive\n";
        return;
    }
    writeDriveSize(stream, "        - Bytes Total: ", total.QuadPart);
    writeDriveSize(stream, "        - Bytes Available: ", available.QuadPart);
}

void writeSessionHeaderBody(std::ostream& stream, std::string_view hostAndVersion) {
    constexpr vdProductInfo product = productInfo();
    stream << "Log creation DateTime : " << localDateTimeText() << "\n"
           << "Host and version : " << hostAndVersion << "\n"
           << product.displayName << " version " << versionToString(product.version) << " - BUILD "
           << product.build << "\n"
           << "Architecture : "
           << "Win"
           << "\n"
           << "Hardware informations : \n";
    writeSystem(stream);
    writeCpu(stream);
    writeWindows(stream);
    writeMemory(stream);
    writeDrives(stream);
}
