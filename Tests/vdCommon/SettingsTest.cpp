#include "Utils/vdSettings.h"

#include <gtest/gtest.h>

#include "EnvironmentVariable.h"
#include "TemporaryFolder.h"
#include "Utils/vdPaths.h"

using namespace std::string_literals;

namespace {
/// Every option that differs from its reset value.
std::string changedOptions() {
    const struct {
        const char* name;
        bool vdOptions::*field;
    } flags[] = {{"presets", &vdOptions::presetsFromFile},
                 {"hybrid", &vdOptions::prproHybridGPUCPUDecoding},
                 {"correctXml", &vdOptions::enableCorrectXml},
                 {"noUpdate", &vdOptions::autoUpdateDisabled},
                 {"sync", &vdOptions::importerSyncMode},
                 {"pproLower", &vdOptions::pproLowerPriority},
                 {"noTimecodeWarning", &vdOptions::pproDisableTimecodeWarning},
                 {"aeOneFrame", &vdOptions::aeImporterOnlyOneFrameWhenLayerSettings},
                 {"noSourcePanel", &vdOptions::pproDisableSourceSettingsPanel},
                 {"aeLower", &vdOptions::aeLowerPriority},
                 {"aeGpu", &vdOptions::aeLayerSettingsGPUEnabled3}};
    const vdOptions reset;
    const vdOptions& now = options();
    std::string text;
    if (now.loggingLevel != reset.loggingLevel)
        text += "logging=" + std::to_string(static_cast<int>(now.loggingLevel)) + " ";
    if (!now.brawDesktopFilepath.empty())
        text += "path=" + now.brawDesktopFilepath + " ";
    for (const auto& [name, field] : flags)
        if (now.*field != reset.*field)
            text += name + " "s;
    for (std::size_t i = 0; i < now.presetNames.size(); ++i)
        if (now.presetNames[i] != "No Preset")
            text += std::to_string(i) + ":" + now.presetNames[i] + " ";
    return text;
}

class Settings : public testing::Test {
protected:
    Settings() { getOptionsFilePath(m_path); }
    ~Settings() override { resetOptions(); }

    std::string load(std::string_view bytes) {
        writeFileBytes(m_path, bytes);
        return load();
    }
    static std::string load() { return loadOptions(), changedOptions(); }

    TemporaryFolder m_home;
    EnvironmentVariable m_profile{L"USERPROFILE", m_home.path().c_str()};
    std::string m_path;
};
} // namespace

TEST_F(Settings, FilesAsPeopleWriteThem) {
    const struct {
        std::string bytes, changed;
    } table[] = {{"", ""},
                 {"[General]\nlogging = INFO", "logging=2 "},
                 {"[general]\nLOGGING = INFO\n", "logging=2 "},
                 {"; mine\r\n\r\n[General]\r\n# a note\r\n\r\n  logging  =  WARN  \r\n", "logging=3 "},
                 {"\xEF\xBB\xBF[General]\nlogging=TRACE\n", "logging=0 "},
                 {"[General]\nlogging=INFO\n[Other]\nlogging=ERR\n[General]\nimporterSyncMode=true\n",
                  "logging=2 sync "},
                 {"[General\nlogging=INFO\n", ""},
                 {"[General]\ncolour=red\n=x\njust text\n[]\n[General]\nlogging=INFO\n", "logging=2 "},
                 {"[General]\nlogging=INFO\n\0importerSyncMode=true\n"s, "logging=2 "},
                 {"[General]\nlowerPriority=true\n[PremierePro]\naeLayerSettingsGPUEnabled3=false\n", ""},
                 {"[General]\nprproHybridGPUCPUDecoding=true\n", "hybrid "},
                 {"[General]\nenableCorrectXml=true\n", "correctXml "},
                 {"[General]\nenableAutoUpdate=false\n", "noUpdate "},
                 {"[General]\nenableAutoUpdate=true\n", ""},
                 {"[PremierePro]\nlowerPriority=true\n", "pproLower "},
                 {"[PremierePro]\npproDisableTimecodeWarning=true\n", "noTimecodeWarning "},
                 {"[PremierePro]\npproDisableSourceSettingsPanel=true\n", "noSourcePanel "},
                 {"[AfterEffects]\nlowerPriority=true\n", "aeLower "},
                 {"[AfterEffects]\nImporterOnlyOneFrameWhenLayerSettings=false\n", "aeOneFrame "},
                 {"[AfterEffects]\naeLayerSettingsGPUEnabled3=false\n", "aeGpu "}};
    for (const auto& [bytes, changed] : table)
        EXPECT_EQ(load(bytes), changed) << bytes;
}

TEST_F(Settings, ValuesAndPresetNames) {
    std::string names25 = "presetsNames = P0", slots20 = "presets 0:P0 ";
    for (int i = 1; i < 25; ++i)
        names25 += "|P" + std::to_string(i);
    for (int i = 1; i < 20; ++i)
        slots20 += std::to_string(i) + ":P" + std::to_string(i) + " ";
    const struct {
        std::string lines, changed;
    } table[] = {
        {"logging = info", ""},
        {"logging = LOUD", ""},
        {"logging=INFO\nlogging=DEBUG", "logging=1 "},
        {"enableAutoUpdate = FALSE\nimporterSyncMode = True\nenableCorrectXml = 1", ""},
        {"brawDesktopFilepath = C:\\\xC3\x9C=;#.exe", "path=C:\\\xC3\x9C=;#.exe "},
        {"presetsNames = #1 - Warm|Cool", "presets 0:Warm 1:Cool "},
        {"presetsNames = A||C|", "presets 0:A 2:C "},
        {"presetsNames =", "presets "},
        {"presetsNames = #2 - X|#2 - Y|#3 - ", "presets 0:#2 - X 1:Y 2:#3 - "},
        {"presetsNames = Untitled Preset 3|No Presets|Kept", "presets 2:Kept "},
        {"presetsNames = " + std::string(80, 'n'), "presets 0:" + std::string(64, 'n') + " "},
        {names25, slots20},
        {"presetsName0 = #1 - a|b\npresetsName19 = Last\npresetsName20 = Beyond", "presets 0:ab 19:Last "},
        {"presetsNames = A\npresetsName1 = B", "presets 0:A "}};
    for (const auto& [lines, changed] : table)
        EXPECT_EQ(load("[General]\n" + lines + "\n"), changed) << lines;
}

TEST_F(Settings, FileThatCannotBeReadGivesTheResetValues) {
    const std::string good = "[General]\nlogging=INFO\n";
    ASSERT_EQ(load(good), "logging=2 ");
    {
        const EnvironmentVariable none(L"USERPROFILE", nullptr);
        EXPECT_EQ(load(), "logging=2 ") << "without a profile the options stay";
    }
    const HANDLE taken = CreateFileA(m_path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(load(), "");
    CloseHandle(taken);
    ASSERT_EQ(load(), "logging=2 ");
    std::filesystem::resize_file(m_path, 64 * 1024 * 1024);
    EXPECT_EQ(load(), "");
    ASSERT_EQ(load(good), "logging=2 ");
    std::filesystem::remove(m_path);
    std::filesystem::create_directories(m_path + "\\inside");
    EXPECT_EQ(load(), "");
}
