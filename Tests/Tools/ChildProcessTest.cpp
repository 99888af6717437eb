// Processes that the system refuses to start.
#include <gtest/gtest.h>

#include "BuiltFile.h"
#include "ChildProcess.h"
#include "Imports.h"

namespace {
decltype(&CreateProcessW) g_create;
int g_starts = 0, g_refusals = 0;
DWORD g_error = 0;

BOOL WINAPI createWhenAllowed(LPCWSTR program, LPWSTR line, LPSECURITY_ATTRIBUTES a, LPSECURITY_ATTRIBUTES b,
                              BOOL inherits, DWORD flags, LPVOID environment, LPCWSTR folder,
                              LPSTARTUPINFOW startup, LPPROCESS_INFORMATION process) {
    if (++g_starts > g_refusals)
        return g_create(program, line, a, b, inherits, flags, environment, folder, startup, process);
    line[0] = L'\0'; // the line is the system's to change
    SetLastError(g_error);
    return FALSE;
}

TEST(ChildProcess, AStartThatFailsForNoReasonIsTriedOnceMore) {
    const ReplacedImport create("CreateProcessW", &createWhenAllowed);
    g_create = create.former();
    const std::wstring program = builtFile("bin/clipforge-thumb.exe").wstring();
    const struct {
        int refusals;
        DWORD error;
        int starts;
        HRESULT started;
    } cases[] = {{1, ERROR_INTERNAL_ERROR, 2, S_OK},
                 {2, ERROR_INTERNAL_ERROR, 2, HRESULT_FROM_WIN32(ERROR_INTERNAL_ERROR)},
                 {1, ERROR_FILE_NOT_FOUND, 1, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)}};
    for (const auto& row : cases) {
        g_starts = 0;
        g_refusals = row.refusals;
        g_error = row.error;
        const ChildProcess process(program, {L"--help"});
        EXPECT_EQ(row.started, process.started()) << row.error;
        EXPECT_EQ(row.starts, g_starts) << row.error;
        if (SUCCEEDED(row.started)) {
            EXPECT_TRUE(process.hasEnded(60'000));
            EXPECT_EQ(0u, process.exitCode()) << "without its arguments it is another question";
        }
    }
}

} // namespace
