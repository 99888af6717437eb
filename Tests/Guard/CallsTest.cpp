// What Windows is asked for a worker: some of it has no effect under Wine, so the calls themselves are looked
// at.
#include "GuardFixture.h"

#include <cwchar>

#include "GuardFailures.h"
#include "Imports.h"
#include "Transport.h"

namespace {
/// What the guard asked of Windows, in order.
struct Calls {
    std::vector<std::string> order;
    HANDLE job = nullptr;
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    std::wstring program, folder;
    DWORD flags = 0;
    WorkerHandles handles;
    DWORD inheritable[4] = {};
    std::vector<HANDLE> listed;
    DWORD noChildProcesses = 0;
    DWORD integrity = 0;
    bool isBornInJob = false;
    bool knowsNoJobList = false; ///< as before Windows 10
    bool refuseJob = false;
    int startsToFail = 0;
    int events = 0;
    int notifications = 0;
    SIZE_T committed = 0;
    int waitsForAnEnd = 0;
    void clear() { *this = {}; }
} g_calls;

DWORD flagsOf(HANDLE handle) {
    DWORD flags = 0;
    GetHandleInformation(handle, &flags);
    return flags;
}

void recordStart(const wchar_t* call, LPCWSTR program, LPWSTR line, BOOL inherits, DWORD flags,
                 LPCWSTR folder) {
    g_calls.order.emplace_back(call, call + std::wcslen(call));
    g_calls.program = program;
    g_calls.folder = folder;
    g_calls.flags = flags;
    EXPECT_TRUE(inherits);
    g_calls.handles = parseWorkerArguments(std::wcsstr(line, L".exe\" ") + 6).value_or(WorkerHandles{});
    const HANDLE handles[] = {g_calls.handles.section, g_calls.handles.question, g_calls.handles.answer,
                              g_calls.handles.guard};
    std::transform(std::begin(handles), std::end(handles), g_calls.inheritable, flagsOf);
}

BOOL WINAPI start(LPCWSTR program, LPWSTR line, LPSECURITY_ATTRIBUTES a, LPSECURITY_ATTRIBUTES b,
                  BOOL inherits, DWORD flags, LPVOID environment, LPCWSTR folder, LPSTARTUPINFOW startup,
                  LPPROCESS_INFORMATION process) {
    recordStart(L"start", program, line, inherits, flags, folder);
    if (g_calls.startsToFail-- > 0)
        return FALSE;
    const BOOL started =
        CreateProcessW(program, line, a, b, inherits, flags, environment, folder, startup, process);
    BOOL isInJob = FALSE;
    g_calls.isBornInJob = IsProcessInJob(process->hProcess, g_calls.job, &isInJob) && isInJob;
    return started;
}

BOOL WINAPI startAs(HANDLE token, LPCWSTR program, LPWSTR line, LPSECURITY_ATTRIBUTES a,
                    LPSECURITY_ATTRIBUTES b, BOOL inherits, DWORD flags, LPVOID environment, LPCWSTR folder,
                    LPSTARTUPINFOW startup, LPPROCESS_INFORMATION process) {
    recordStart(L"start as", program, line, inherits, flags, folder);
    return CreateProcessAsUserW(token, program, line, a, b, inherits, flags, environment, folder, startup,
                                process);
}

BOOL WINAPI updateAttribute(LPPROC_THREAD_ATTRIBUTE_LIST list, DWORD flags, DWORD_PTR attribute, PVOID value,
                            SIZE_T size, PVOID former, PSIZE_T formerSize) {
    if (attribute == PROC_THREAD_ATTRIBUTE_HANDLE_LIST)
        g_calls.listed.assign(static_cast<HANDLE*>(value),
                              static_cast<HANDLE*>(value) + size / sizeof(HANDLE));
    else if (attribute == 0x0002000E) // PROC_THREAD_ATTRIBUTE_CHILD_PROCESS_POLICY
        g_calls.noChildProcesses = *static_cast<DWORD*>(value);
    else if (g_calls.knowsNoJobList)
        return FALSE;
    return UpdateProcThreadAttribute(list, flags, attribute, value, size, former, formerSize);
}

BOOL WINAPI setJob(HANDLE job, JOBOBJECTINFOCLASS kind, LPVOID limits, DWORD size) {
    if (kind == JobObjectExtendedLimitInformation)
        std::memcpy(&g_calls.limits, limits, sizeof g_calls.limits);
    g_calls.job = job;
    return SetInformationJobObject(job, kind, limits, size);
}

BOOL WINAPI assign(HANDLE job, HANDLE process) {
    g_calls.order.emplace_back("assign");
    return !g_calls.refuseJob && AssignProcessToJobObject(job, process);
}

DWORD WINAPI resume(HANDLE thread) {
    g_calls.order.emplace_back("resume");
    return ResumeThread(thread);
}

BOOL WINAPI setToken(HANDLE token, TOKEN_INFORMATION_CLASS kind, LPVOID information, DWORD size) {
    if (kind == TokenIntegrityLevel)
        g_calls.integrity =
            *GetSidSubAuthority(static_cast<TOKEN_MANDATORY_LABEL*>(information)->Label.Sid, 0);
    return SetTokenInformation(token, kind, information, size);
}

BOOL WINAPI reportEvent(HANDLE, WORD, WORD, DWORD, PSID, WORD, DWORD, LPCWSTR*, LPVOID) {
    ++g_calls.events;
    return TRUE;
}

void WINAPI notifyShell(LONG, UINT, LPCVOID, LPCVOID) {
    ++g_calls.notifications;
}

void* WINAPI commit(void* place, SIZE_T bytes, DWORD kind, DWORD protection) {
    g_calls.committed = bytes;
    return VirtualAlloc(place, bytes, kind, protection);
}

DWORD WINAPI waitForEnd(HANDLE process, DWORD milliseconds) {
    ++g_calls.waitsForAnEnd;
    return WaitForSingleObject(process, milliseconds);
}

class CallsTest : public GuardTest {
protected:
    void SetUp() override {
        GuardTest::SetUp();
        g_calls.clear();
        const HMODULE guard = GetModuleHandleW(L"Clipforge_Guard.dll");
        const auto stand = [&](const char* name, auto* function) {
            void** const slot = importSlot(guard, name);
            ASSERT_NE(nullptr, slot) << name;
            setImport(slot, reinterpret_cast<void*>(function));
        };
        stand("CreateProcessW", start);
        stand("CreateProcessAsUserW", startAs);
        stand("UpdateProcThreadAttribute", updateAttribute);
        stand("SetInformationJobObject", setJob);
        stand("AssignProcessToJobObject", assign);
        stand("ResumeThread", resume);
        stand("SetTokenInformation", setToken);
        stand("ReportEventW", reportEvent);
        stand("SHChangeNotify", notifyShell);
        stand("VirtualAlloc", commit);
        stand("WaitForSingleObject", waitForEnd);
    }
    /// Four handles are inherited, and nobody else can inherit them any more.
    void expectFourHandles() {
        const std::vector<HANDLE> given = {g_calls.handles.section, g_calls.handles.question,
                                           g_calls.handles.answer, g_calls.handles.guard};
        EXPECT_EQ(given, g_calls.listed);
        for (const DWORD flags : g_calls.inheritable)
            EXPECT_EQ(static_cast<DWORD>(HANDLE_FLAG_INHERIT), flags & HANDLE_FLAG_INHERIT);
        for (const HANDLE handle : given)
            EXPECT_EQ(0u, flagsOf(handle) & HANDLE_FLAG_INHERIT);
    }
};

TEST_F(CallsTest, AWorkerIsBornInItsJobAndItsFolder) {
    setPolicy(L"WorkerMegabytes", 300);
    expectPicture();
    EXPECT_EQ((std::vector<std::string>{"start", "resume"}), g_calls.order);
    EXPECT_TRUE(g_calls.isBornInJob);
    EXPECT_EQ(static_cast<DWORD>(CREATE_SUSPENDED | CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT),
              g_calls.flags);
    EXPECT_TRUE(std::filesystem::equivalent(inside(workerName), g_calls.program));
    EXPECT_TRUE(
        std::filesystem::equivalent(m_folder.path(), std::filesystem::path(g_calls.folder).parent_path()));
    expectFourHandles();
    EXPECT_EQ(64u * 32 * 4, g_calls.committed)
        << "a worker need not have committed what it claims to have written";
    const auto& basic = g_calls.limits.BasicLimitInformation;
    EXPECT_EQ(static_cast<DWORD>(JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_ACTIVE_PROCESS |
                                 JOB_OBJECT_LIMIT_DIE_ON_UNHANDLED_EXCEPTION |
                                 JOB_OBJECT_LIMIT_PROCESS_MEMORY),
              basic.LimitFlags);
    EXPECT_EQ(1u, basic.ActiveProcessLimit);
    EXPECT_EQ(size_t{300} << 20, g_calls.limits.ProcessMemoryLimit);
    EXPECT_EQ(0u, g_calls.integrity);
}

TEST_F(CallsTest, ARefusedJobIsNoReasonToStop) {
    g_calls.knowsNoJobList = g_calls.refuseJob = true;
    expectPicture();
    EXPECT_EQ((std::vector<std::string>{"start", "assign", "resume"}), g_calls.order);
}

TEST_F(CallsTest, AStartThatFailsIsTriedOnceMore) {
    g_calls.startsToFail = 1; // by a job of the host's own, say
    expectPicture();
    EXPECT_EQ((std::vector<std::string>{"start", "start", "assign", "resume"}), g_calls.order);
    EXPECT_FALSE(g_calls.isBornInJob);
    m_library->call("DllCanUnloadNow"); // the next question needs another one
    g_calls.startsToFail = 2;
    EXPECT_RESULT(GUARD_E_WORKER_NOT_STARTED, resultOf(L"good"));
}

TEST_F(CallsTest, WhatTheGuardItselfFailsLeavesAnEvent) {
    EXPECT_RESULT(static_cast<HRESULT>(0x80041234), resultOf(L"refused"));
    EXPECT_EQ(0, g_calls.events) << "the handler has told";
    EXPECT_EQ(0, g_calls.waitsForAnEnd);
    EXPECT_NE(S_OK, resultOf(L"abort"));
    EXPECT_EQ(1, g_calls.events);
    EXPECT_EQ(1, g_calls.waitsForAnEnd) << "the clip is free again when the shell has its answer";
}

TEST_F(CallsTest, LowIntegrityIsASwitch) {
    setPolicy(L"WorkerLowIntegrity", 1);
    expectPicture();
    EXPECT_EQ((std::vector<std::string>{"start as", "resume"}), g_calls.order);
    EXPECT_EQ(static_cast<DWORD>(SECURITY_MANDATORY_LOW_RID), g_calls.integrity);
    EXPECT_EQ(1u, g_calls.noChildProcesses);
    expectFourHandles();
}

TEST_F(CallsTest, TheWorkerIsQuietAndAtHome) {
    const ThumbnailAnswer answer = ask(L"facts");
    DIBSECTION section = {};
    ASSERT_TRUE(isThumbnailBitmap(answer.bitmap.get(), section));
    WorkerFacts facts = {};
    std::memcpy(&facts, section.dsBm.bmBits, sizeof facts);
    EXPECT_EQ(static_cast<uint32_t>(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX),
              facts.errorMode);
    EXPECT_EQ(1u, facts.hasCrashFilter);
    EXPECT_EQ(1u, facts.isInOwnFolder);
    EXPECT_EQ(std::vector<DWORD>{facts.processId}, childProcesses(workerName));
}

TEST_F(CallsTest, TheGuardRegistersItselfAndPutsBackWhatWasBound) {
    const std::wstring binding = L"SOFTWARE\\Classes\\.braw\\ShellEx\\{e357fccd-a995-4576-b01f-234630154e96}";
    const std::wstring approved = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\Approved";
    constexpr const wchar_t* guard = L"{0c6f4a97-51d2-4e83-a0b9-7be4d25c8a16}";
    const std::wstring key = std::wstring(L"SOFTWARE\\Classes\\CLSID\\") + guard;
    const auto text = [](const std::wstring& name, const wchar_t* value = nullptr) {
        return StandInRegistry::text(HKEY_LOCAL_MACHINE, name, value);
    };
    for (const wchar_t* before : {L"(nothing)", L"{another}"}) {
        if (*before == L'{')
            StandInRegistry::setText(HKEY_LOCAL_MACHINE, binding, nullptr, before);
        for (int i = 0; i < 2; ++i)
            EXPECT_RESULT(S_OK, m_library->call("DllRegisterServer"));
        EXPECT_EQ(guard, text(binding));
        EXPECT_EQ(L"Clipforge Guarded Thumbnail Handler", text(key));
        EXPECT_EQ(L"Clipforge Guarded Thumbnail Handler", text(approved, guard));
        EXPECT_TRUE(
            std::filesystem::equivalent(inside(L"Clipforge_Guard.dll"), text(key + L"\\InProcServer32")));
        EXPECT_EQ(L"Apartment", text(key + L"\\InProcServer32", L"ThreadingModel"));
        DWORD isolation = 0, size = sizeof isolation;
        RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"DisableProcessIsolation", RRF_RT_REG_DWORD, nullptr,
                     &isolation, &size);
        EXPECT_EQ(1u, isolation);
        EXPECT_EQ(L"(nothing)", text(L"SOFTWARE\\Classes\\.braw")) << "no file type";
        for (int i = 0; i < 2; ++i)
            EXPECT_RESULT(S_OK, m_library->call("DllUnregisterServer"));
        for (const std::wstring& gone : {text(key), text(approved, guard)})
            EXPECT_EQ(L"(nothing)", gone);
        EXPECT_EQ(before, text(binding));
    }
    EXPECT_EQ(8, g_calls.notifications);
}
} // namespace
