// The tests' entry point; the same program is also the child that a probe starts.
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <objbase.h>

#include "CrashReport.h"
#include "Probe.h"

int wmain(int count, wchar_t** values) {
    if (count > 1 && values[1] == std::wstring_view(L"probe-child")) {
        reportCrashesOnOneLine();
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        return runProbeChild(std::vector<std::wstring_view>(values + 2, values + count));
    }
    testing::InitGoogleTest(&count, values);
    return RUN_ALL_TESTS();
}
