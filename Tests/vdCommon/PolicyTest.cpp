#include "Utils/vdPolicy.h"

#include <gtest/gtest.h>

#include "StandInRegistry.h"

namespace {
void set(HKEY root, const wchar_t* key, DWORD number, DWORD type = REG_DWORD) {
    StandInRegistry::setNumber(root, key, L"WorkerSeconds", number, type);
}
} // namespace

TEST(Policy, TheStrongestValidPlaceDecides) {
    const StandInRegistry registry;
    const wchar_t* const policies = L"Software\\Policies\\Verdane\\Clipforge";
    const wchar_t* const choices = L"Software\\Verdane\\Clipforge";
    EXPECT_EQ(15u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_LOCAL_MACHINE, choices, 1);
    EXPECT_EQ(1u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_CURRENT_USER, choices, 600);
    EXPECT_EQ(600u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_CURRENT_USER, policies, 3);
    EXPECT_EQ(3u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_LOCAL_MACHINE, policies, 4);
    EXPECT_EQ(4u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_LOCAL_MACHINE, policies, 5, REG_BINARY);
    EXPECT_EQ(3u, policyValue(vdPolicy::workerSeconds)) << "another type";
    for (const DWORD beyond : {0u, 601u, 0xFFFFFFFFu}) {
        set(HKEY_CURRENT_USER, policies, beyond);
        EXPECT_EQ(600u, policyValue(vdPolicy::workerSeconds)) << beyond;
    }
    EXPECT_EQ(1u, policyValue(vdPolicy::failureEvents)) << "a name of its own";
    EXPECT_EQ(0u, policyValue(vdPolicy::cloudThumbnails));
}
