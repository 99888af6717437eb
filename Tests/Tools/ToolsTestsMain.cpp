// The tests' entry point; the same program is also the child that a probe or a doctor starts.

#include <gtest/gtest.h>
#include <objbase.h>

#include "Common.h"
#include "CrashReport.h"
#include "PictureChild.h"
#include "Probe.h"
#include "TestWatch.h"

int wmain(int count, wchar_t** values) {
    const std::wstring_view command = count > 1 ? values[1] : L"";
    if (command == L"probe-child" || command == L"picture-child") {
        reportCrashesOnOneLine();
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        const std::vector<std::wstring_view> words(values + 2, values + count);
        return command == L"probe-child" ? runProbeChild(words) : runPictureChild(words);
    }
    testing::InitGoogleTest(&count, values);
    watchTests();
    return RUN_ALL_TESTS();
}
