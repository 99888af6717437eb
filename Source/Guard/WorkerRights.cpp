#include "WorkerRights.h"

OwnedHandle createWorkerJob(size_t memory) {
    OwnedHandle job(CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags =
        JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_DIE_ON_UNHANDLED_EXCEPTION |
        JOB_OBJECT_LIMIT_ACTIVE_PROCESS | JOB_OBJECT_LIMIT_PROCESS_MEMORY;
    limits.BasicLimitInformation.ActiveProcessLimit = 1;
    limits.ProcessMemoryLimit = memory;
    if (!SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits))
        return {};
    return job;
}

OwnedHandle createLowIntegrityToken() {
    OwnedHandle own, token;
    SID_IDENTIFIER_AUTHORITY authority = SECURITY_MANDATORY_LABEL_AUTHORITY;
    SID low = {SID_REVISION, 1, authority, {SECURITY_MANDATORY_LOW_RID}};
    TOKEN_MANDATORY_LABEL label = {{&low, SE_GROUP_INTEGRITY}};
    const bool made =
        OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE, own.put()) &&
        DuplicateTokenEx(own.get(),
                         TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY | TOKEN_ADJUST_DEFAULT, nullptr,
                         SecurityImpersonation, TokenPrimary, token.put()) &&
        SetTokenInformation(token.get(), TokenIntegrityLevel, &label, sizeof label);
    return made ? std::move(token) : OwnedHandle();
}
