// The CUDA runtime beside the program, on the search path, missing or broken: always a value, never a crash.

#include "DecodeCoreFixture.h"
#include "EnvironmentVariable.h"
#include "FreshProcess.h"
#include "LogSession.h"

extern "C" FARPROC __imp_cudaMemcpy; // NOLINT(bugprone-reserved-identifier)

namespace {
namespace fs = std::filesystem;

const fs::path besideUs = [] {
    wchar_t name[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, name, MAX_PATH);
    return fs::path(name).parent_path() / cudaRuntimeFile;
}();

int copyByte() {
    char from = 'x';
    char to = 0;
    const int error = cudaCopy(&to, &from, 1, cudaCopyKind::deviceToHost);
    return error == 0 && to != 'x' ? -2 : error;
}

/// The protection of the memory where the runtime's functions are entered.
DWORD slotProtection() {
    MEMORY_BASIC_INFORMATION memory = {};
    VirtualQuery(&__imp_cudaMemcpy, &memory, sizeof memory);
    return memory.Protect;
}

std::wstring loadedFrom() {
    wchar_t name[MAX_PATH] = {};
    if (const HMODULE module = GetModuleHandleA(cudaRuntimeFile))
        GetModuleFileNameW(module, name, MAX_PATH);
    return fs::path(name).parent_path().filename().wstring();
}

// A runtime that was bound stays for the process's life, so this has one of its own.
TEST(CudaRuntimeProcess, DISABLED_MissingThenBrokenThenBesideUs) {
    size_t freeBytes = 1;
    size_t totalBytes = 1;
    std::string message;
    // Some linkers lay the slots into memory for reading only; what follows works there, and leaves it so.
    DWORD former = 0;
    ASSERT_TRUE(VirtualProtect(&__imp_cudaMemcpy, sizeof __imp_cudaMemcpy, PAGE_READONLY, &former));
    // No runtime anywhere, twice.
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(loadCudaRuntime(message));
        EXPECT_EQ(cudaDeviceMemory(freeBytes, totalBytes), cudaRuntimeNotLoaded);
        EXPECT_EQ(message, "cudart64_110.dll __HrLoadAllImportsForDll exception");
        EXPECT_EQ(freeBytes + totalBytes, 0u);
        EXPECT_EQ(copyByte(), cudaRuntimeNotLoaded);
    }
    // One on the search path that lacks a function: what it has works, what it lacks is a value.
    const EnvironmentVariable path(L"PATH", builtFile("cuda-broken").c_str());
    EXPECT_EQ(cudaDeviceMemory(freeBytes, totalBytes), 0) << "bound by the first call";
    EXPECT_EQ(loadedFrom(), L"cuda-broken");
    EXPECT_TRUE(freeBytes > 0 && totalBytes > freeBytes);
    EXPECT_EQ(copyByte(), cudaRuntimeNotLoaded);
    EXPECT_FALSE(loadCudaRuntime(message));
    EXPECT_EQ(message, "cudart64_110.dll __HrLoadAllImportsForDll exception");
    EXPECT_EQ(loadedFrom(), L"") << "the broken runtime is still held";
    // The runtime beside us wins over it, and a later attempt finds it after all the failures.
    fs::copy_file(builtFile("cuda") / cudaRuntimeFile, besideUs);
    EXPECT_TRUE(loadCudaRuntime(message)) << message;
    EXPECT_EQ(message, "");
    EXPECT_EQ(loadedFrom(), besideUs.parent_path().filename().wstring());
    EXPECT_EQ(copyByte(), 0);
    EXPECT_TRUE(loadCudaRuntime(message)) << "a second bind of a bound runtime";
    EXPECT_EQ(slotProtection(), static_cast<DWORD>(PAGE_READONLY));
    standIn<void(int)>("standInSetError")(77);
    EXPECT_EQ(cudaDeviceMemory(freeBytes, totalBytes), 77);
    EXPECT_EQ(freeBytes + totalBytes, 0u);
    EXPECT_EQ(copyByte(), 77);
}

TEST(CudaRuntimeTest, RuntimeThatComesAndGoesIsAValue) {
    fs::remove(besideUs); // what a run that was broken off left
    runInFreshProcess("CudaRuntimeProcess.DISABLED_MissingThenBrokenThenBesideUs");
    fs::remove(besideUs);
    std::string message;
    EXPECT_FALSE(loadDelayedLibrary("other.dll", message));
    EXPECT_EQ(message, "other.dll __HrLoadAllImportsForDll failed");
}

// The runtime's path may be one character longer than Windows' own limit, and no more; characters are not
// bytes.
TEST(CudaRuntimeTest, OverlongPathIsLoggedAndGivenUp) {
    const auto pathFrom = [](const std::string& folderName) {
        return cudaRuntimePath("C:/" + folderName + "\\Clipforge_Thumbnails.dll");
    };
    constexpr size_t longest = 261 - 3 - 17;
    std::string accents;
    for (size_t i = 0; i < longest; ++i)
        accents += "\xC3\xA9";
    const LogSession log(vdLogLevel::error);
    EXPECT_EQ(pathFrom("a"), "C:\\a\\cudart64_110.dll");
    EXPECT_EQ(pathFrom(std::string(longest, 'a')).size(), 261u);
    EXPECT_NE(pathFrom(accents), "");
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(pathFrom(std::string(longest + 1, 'a')), "");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("ERROR getCudaURL - Folder Path + dllFilename superior to MAX PATH !"),
              std::string::npos);
}
} // namespace
