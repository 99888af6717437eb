#include "Utils/vdPolicy.h"

#include <gtest/gtest.h>

namespace {
/// For this process, the machine's and the user's settings are keys that only this test knows.
class Policy : public testing::Test {
protected:
    void SetUp() override {
        for (Hive& hive : m_hives) {
            ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, hive.standIn, 0, nullptr, 0,
                                                     KEY_ALL_ACCESS, nullptr, &hive.key, nullptr));
        }
        for (const Hive& hive : m_hives)
            RegOverridePredefKey(hive.root, hive.key);
    }
    void TearDown() override {
        for (const Hive& hive : m_hives)
            RegOverridePredefKey(hive.root, nullptr);
        for (const Hive& hive : m_hives) {
            RegCloseKey(hive.key);
            RegDeleteTreeW(HKEY_CURRENT_USER, hive.standIn);
        }
    }

    struct Hive {
        HKEY root;
        const wchar_t* standIn;
        HKEY key;
    };
    Hive m_hives[2] = {{HKEY_LOCAL_MACHINE, L"Software\\ClipforgeTestMachine", nullptr},
                       {HKEY_CURRENT_USER, L"Software\\ClipforgeTestUser", nullptr}};
};

void set(HKEY root, const wchar_t* key, DWORD type, DWORD value) {
    RegSetKeyValueW(root, key, L"WorkerSeconds", type, &value, sizeof value);
}
} // namespace

TEST_F(Policy, TheStrongestValidPlaceDecides) {
    const wchar_t* const policies = L"Software\\Policies\\Verdane\\Clipforge";
    const wchar_t* const choices = L"Software\\Verdane\\Clipforge";
    EXPECT_EQ(15u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_LOCAL_MACHINE, choices, REG_DWORD, 1);
    EXPECT_EQ(1u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_CURRENT_USER, choices, REG_DWORD, 600);
    EXPECT_EQ(600u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_CURRENT_USER, policies, REG_DWORD, 3);
    EXPECT_EQ(3u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_LOCAL_MACHINE, policies, REG_DWORD, 4);
    EXPECT_EQ(4u, policyValue(vdPolicy::workerSeconds));
    set(HKEY_LOCAL_MACHINE, policies, REG_BINARY, 5);
    EXPECT_EQ(3u, policyValue(vdPolicy::workerSeconds)) << "another type";
    for (const DWORD beyond : {0u, 601u, 0xFFFFFFFFu}) {
        set(HKEY_CURRENT_USER, policies, REG_DWORD, beyond);
        EXPECT_EQ(600u, policyValue(vdPolicy::workerSeconds)) << beyond;
    }
    EXPECT_EQ(1u, policyValue(vdPolicy::failureEvents)) << "a name of its own";
    EXPECT_EQ(0u, policyValue(vdPolicy::cloudThumbnails));
}
