// How other libraries are loaded: from where, with which of their dependencies, and without asking anybody.
#include "Utils/vdModule.h"

#include <gtest/gtest.h>

#include "Adobe/vdHost.h"
#include "EnvironmentVariable.h"
#include "Imports.h"
#include "LogSession.h"
#include "TemporaryFolder.h"

namespace fs = std::filesystem;

namespace {
const fs::path built = fs::path(ownModulePath()).parent_path();

/// Which dependency the needy library found, or 0 when it could not be loaded.
int loadNeedy(const fs::path& folder) {
    const HMODULE library = loadLibraryIsolated((folder / "needy.dll").wstring());
    if (library == nullptr)
        return 0;
    const int which =
        reinterpret_cast<int (*)()>(reinterpret_cast<void*>(GetProcAddress(library, "askDependency")))();
    FreeLibrary(library);
    return which;
}

struct Load {
    DWORD flags, errorMode;
};
std::vector<Load> g_loads;
bool g_knowsSearchFlags = true;

HMODULE WINAPI recordLoad(LPCWSTR, HANDLE, DWORD flags) {
    g_loads.push_back({flags, GetThreadErrorMode()});
    SetLastError(g_knowsSearchFlags ? ERROR_MOD_NOT_FOUND : ERROR_INVALID_PARAMETER);
    return nullptr;
}

DWORD WINAPI giveLongPath(HMODULE, LPWSTR buffer, DWORD size) {
    const DWORD length = std::min<DWORD>(size, 300);
    std::fill(buffer, buffer + length, L'\\');
    SetLastError(length == size ? ERROR_INSUFFICIENT_BUFFER : ERROR_SUCCESS);
    return length;
}
} // namespace

TEST(Module, DependenciesAreFoundBesideTheLibraryAndNeverInTheCurrentFolder) {
    const TemporaryFolder temporary, clips;
    fs::copy(built / "needy.dll", temporary.path());
    fs::copy(built / "WrongDependency" / "dependency.dll", clips.path());
    const fs::path before = fs::current_path();
    fs::current_path(clips.path());
    const EnvironmentVariable path(L"PATH", clips.path().c_str());
    EXPECT_EQ(loadNeedy(temporary.path()), 0);
    fs::copy(built / "RightDependency" / "dependency.dll", temporary.path());
    EXPECT_EQ(loadNeedy(temporary.path()), 1);
    fs::current_path(before);
}

TEST(Module, LoadsQuietlyAndOnOldSystemsToo) {
    const ReplacedImport load("LoadLibraryExW", &recordLoad);
    ASSERT_TRUE(load);
    constexpr DWORD searched = LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32;
    constexpr DWORD quiet = SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX;
    const DWORD before = GetThreadErrorMode();
    SetThreadErrorMode(SEM_NOGPFAULTERRORBOX, nullptr); // a mode of the host's, which stays
    for (const bool knows : {true, false}) {
        g_loads.clear();
        g_knowsSearchFlags = knows;
        EXPECT_EQ(loadLibraryIsolated(L"C:\\x.dll"), nullptr);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(knows ? ERROR_MOD_NOT_FOUND : ERROR_INVALID_PARAMETER));
        ASSERT_EQ(g_loads.size(), knows ? 1u : 2u);
        EXPECT_EQ(g_loads.front().flags, searched);
        if (!knows) {
            EXPECT_EQ(g_loads.back().flags, DWORD{LOAD_WITH_ALTERED_SEARCH_PATH});
        }
        for (const Load& made : g_loads)
            EXPECT_EQ(made.errorMode, quiet | SEM_NOGPFAULTERRORBOX);
        EXPECT_EQ(GetThreadErrorMode(), DWORD{SEM_NOGPFAULTERRORBOX});
    }
    SetThreadErrorMode(before, nullptr);
}

TEST(Module, OwnPathAndFolder) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    EXPECT_EQ(ownModule(), GetModuleHandleW(nullptr));
    EXPECT_EQ(ownModulePath(), program);
    EXPECT_EQ(GetDylibParentFolderPath() + fs::path(program).filename().wstring(), program);

    const LogSession log(vdLogLevel::error);
    const ReplacedImport name("GetModuleFileNameW", &giveLongPath);
    EXPECT_EQ(ownModulePath().size(), 300u) << "longer than the first buffer";
    EXPECT_EQ(GetDylibParentFolderPath(), L"");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.lines()[0].find("GetModuleFileName failed, error = ") != std::string::npos);
}
