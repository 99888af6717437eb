#include "Utils/vdSettings.h"

#include <memory>
#include <optional>

#include <gtest/gtest.h>

#include "EnvironmentVariable.h"
#include "TemporaryFolder.h"
#include "Utils/vdPaths.h"
#include "Utils/vdPresets.h"

using namespace std::string_literals;

namespace {
/// Every option that differs from its reset value, in the record's order.
std::string changedOptions() {
    const vdOptions reset;
    const vdOptions& now = options();
    std::string text;
    const auto flag = [&](const char* name, bool vdOptions::*field) {
        if (now.*field != reset.*field)
            text += std::string(name) + " ";
    };
    flag("presetsFromFile", &vdOptions::presetsFromFile);
    if (now.loggingLevel != reset.loggingLevel)
        text += "logging=" + std::to_string(static_cast<int>(now.loggingLevel)) + " ";
    flag("hybrid", &vdOptions::prproHybridGPUCPUDecoding);
    for (std::size_t i = 0; i < now.presetNames.size(); ++i)
        if (now.presetNames[i] != "No Preset")
            text += std::to_string(i) + ":" + now.presetNames[i] + " ";
    flag("correctXml", &vdOptions::enableCorrectXml);
    if (!now.brawDesktopFilepath.empty())
        text += "path=" + now.brawDesktopFilepath + " ";
    flag("noUpdate", &vdOptions::autoUpdateDisabled);
    flag("sync", &vdOptions::importerSyncMode);
    flag("pproLower", &vdOptions::pproLowerPriority);
    flag("noTimecodeWarning", &vdOptions::pproDisableTimecodeWarning);
    flag("aeOneFrame", &vdOptions::aeImporterOnlyOneFrameWhenLayerSettings);
    flag("noSourcePanel", &vdOptions::pproDisableSourceSettingsPanel);
    flag("aeLower", &vdOptions::aeLowerPriority);
    flag("aeGpu", &vdOptions::aeLayerSettingsGPUEnabled3);
    return text;
}

class Settings : public testing::Test {
protected:
    Settings() { getOptionsFilePath(m_path); }
    ~Settings() override { resetOptions(); }

    std::string load(std::string_view bytes) {
        writeFileBytes(m_path, bytes);
        loadOptions();
        return changedOptions();
    }

    TemporaryFolder m_home;
    EnvironmentVariable m_profile{L"USERPROFILE", m_home.path().c_str()};
    std::string m_path;
};

std::string listOf(int count) {
    std::string list;
    for (int i = 0; i < count; ++i)
        list += (i == 0 ? "P" : "|P") + std::to_string(i);
    return list;
}

std::string slotsOf(int count) {
    std::string slots = "presetsFromFile ";
    for (int i = 0; i < count; ++i)
        slots += std::to_string(i) + ":P" + std::to_string(i) + " ";
    return slots;
}
} // namespace

TEST_F(Settings, FilesAsPeopleWriteThem) {
    const struct {
        std::string bytes, changed;
    } table[] = {
        {"", ""},
        {"\xEF\xBB\xBF", ""},
        {"[General]\nlogging = INFO", "logging=2 "},
        {"[general]\nLOGGING = INFO\n", "logging=2 "},
        {"[General]\nlogging = info\n", ""},
        {"[General]\nlogging = LOUD\n", ""},
        {"[General]\nlogging =\n", ""},
        {"; mine\r\n\r\n[General]\r\n# a note\r\n\r\n  logging  =  WARN  \r\n", "logging=3 "},
        {"# no blank line\n[General]\nlogging=ERR\n", "logging=4 "},
        {"\xEF\xBB\xBF[General]\nlogging=TRACE\n", "logging=0 "},
        {"[General]\rlogging=DEBUG\r", "logging=1 "},
        {"[General]\nlogging=INFO\nlogging=ERR\n", "logging=4 "},
        {"[General]\nlogging=INFO\n[Other]\nlogging=ERR\n[General]\nimporterSyncMode=true\n",
         "logging=2 sync "},
        {"logging=INFO\n", ""},
        {"[General\nlogging=INFO\n", ""},
        {"[General]\ncolour=red\n=x\njust text\n[]\n[General]\nlogging=INFO\n", "logging=2 "},
        {"[General]\nlogging=INFO\n\0importerSyncMode=true\n"s, "logging=2 "},
        {"[General]\nenableAutoUpdate = false\n", "noUpdate "},
        {"[General]\nenableAutoUpdate = FALSE\nimporterSyncMode = True\nenableCorrectXml = 1\n", ""},
        {"[General]\nbrawDesktopFilepath = None\n", ""},
        {"[General]\nbrawDesktopFilepath = C:\\\xC3\x9C=;#.exe\n", "path=C:\\\xC3\x9C=;#.exe "},
        {"[General]\nlowerPriority=true\n[PremierePro]\naeLayerSettingsGPUEnabled3=false\n", ""},
        {"[AfterEffects]\nlowerPriority=true\n", "aeLower "},
        {"[General]\nlogging=ERR\nprproHybridGPUCPUDecoding=true\nimporterSyncMode=true\nenableCorrectXml="
         "true\n"
         "enableAutoUpdate=false\n[PremierePro]\nlowerPriority=true\npproDisableTimecodeWarning=true\n"
         "pproDisableSourceSettingsPanel=true\n[AfterEffects]\nlowerPriority=true\n"
         "ImporterOnlyOneFrameWhenLayerSettings=false\naeLayerSettingsGPUEnabled3=false\n",
         "logging=4 hybrid correctXml noUpdate sync pproLower noTimecodeWarning aeOneFrame noSourcePanel "
         "aeLower "
         "aeGpu "},
    };
    for (const auto& [bytes, changed] : table)
        EXPECT_EQ(load(bytes), changed) << bytes;
}

TEST_F(Settings, PresetNames) {
    const struct {
        std::string lines, changed;
    } table[] = {
        {"presetsNames = #1 - Warm|Cool", "presetsFromFile 0:Warm 1:Cool "},
        {"presetsNames = A||C|", "presetsFromFile 0:A 2:C "},
        {"presetsNames =", "presetsFromFile "},
        {"presetsNames = None", ""},
        {"presetsNames = #2 - X|#2 - Y|#3 - ", "presetsFromFile 0:#2 - X 1:Y 2:#3 - "},
        {"presetsNames = Untitled Preset 3|No Presets|Kept", "presetsFromFile 2:Kept "},
        {"presetsNames = " + std::string(80, 'n'), "presetsFromFile 0:" + std::string(64, 'n') + " "},
        {"presetsNames = " + listOf(20), slotsOf(20)},
        {"presetsNames = " + listOf(25), slotsOf(20)},
        {"presetsName5 = Night", "presetsFromFile 5:Night "},
        {"presetsName0 = #1 - a|b\npresetsName19 = Last\npresetsName20 = Beyond",
         "presetsFromFile 0:ab 19:Last "},
        {"presetsNames = A\npresetsName1 = B", "presetsFromFile 0:A "},
    };
    for (const auto& [lines, changed] : table)
        EXPECT_EQ(load("[General]\n" + lines + "\n"), changed) << lines;
    std::string folder;
    EXPECT_EQ(getPresetsFolder(folder).failed, 0);
    EXPECT_EQ(folder, m_home.text("AppData\\Roaming\\Verdane\\Clipforge\\BR_Preset"));
    EXPECT_TRUE(isDirectory(folder));
    setPresetName(-1, "x");
    setPresetName(20, "x");
}

TEST_F(Settings, FileThatCannotBeReadGivesTheResetValues) {
    const std::string good = "[General]\nlogging=INFO\n";
    ASSERT_EQ(load(good), "logging=2 ");
    {
        const HANDLE taken = CreateFileA(m_path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(taken, INVALID_HANDLE_VALUE);
        loadOptions();
        CloseHandle(taken);
        EXPECT_EQ(changedOptions(), "");
    }
    const std::size_t largest = 1024 * 1024;
    EXPECT_EQ(load(good + ";" + std::string(largest - good.size() - 1, 'x')), "logging=2 ");
    EXPECT_EQ(load(good + ";" + std::string(largest - good.size(), 'x')), "");
    load(good);
    std::filesystem::resize_file(m_path, 64 * largest);
    loadOptions();
    EXPECT_EQ(changedOptions(), "");

    ASSERT_EQ(load(good), "logging=2 ");
    std::filesystem::remove(m_path);
    std::filesystem::create_directories(m_path + "\\inside");
    loadOptions();
    EXPECT_EQ(changedOptions(), "");
}

TEST_F(Settings, WithoutAProfileTheOptionsStay) {
    ASSERT_EQ(load("[General]\nlogging=INFO\n"), "logging=2 ");
    const EnvironmentVariable none(L"USERPROFILE", nullptr);
    loadOptions();
    EXPECT_EQ(changedOptions(), "logging=2 ");
}
