// What the decoder is sent of a request's settings, and what becomes of a refusal.
#include <cmath>
#include <span>
#include <sstream>

#include <gtest/gtest.h>
#include <wrl/client.h>

#include "Attributes.h"
#include "AttributesSetter.h"
#include "Imports.h"
#include "LogSession.h"
#include "ProcessingVocabulary.h"
#include "ReferenceDecoderSession.h"
#include "Utils/vdResult.h"

namespace {
std::string characters(uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += static_cast<char>(code >> shift & 0xFF);
    return text;
}

template <size_t size>
void fill(char (&field)[size], std::string_view text) {
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

/// The texts that went out through this program's imports and have not come back. One that comes back twice
/// counts as below none.
class TextAccount {
public:
    TextAccount() { s_balance = 0; }
    ~TextAccount() { EXPECT_EQ(s_balance, 0) << "texts"; }

private:
    static BSTR WINAPI allocate(const OLECHAR* text, UINT length) {
        ++s_balance;
        return SysAllocStringByteLen(reinterpret_cast<const char*>(text), length * sizeof *text);
    }
    static HRESULT WINAPI clear(VARIANTARG* variant) {
        s_balance -= variant->vt == VT_BSTR && variant->bstrVal != nullptr;
        return variant->vt == VT_BSTR ? SysFreeString(variant->bstrVal), S_OK : S_OK;
    }
    static inline int s_balance = 0;
    const ReplacedImport<decltype(allocate)> m_allocate{"SysAllocStringLen", &allocate};
    const ReplacedImport<decltype(clear)> m_clear{"VariantClear", &clear};
};

class AttributesSetterTest : public testing::Test {
protected:
    AttributesSetterTest() {
        m_session.reset();
        // Attach would take a reference of its own with this toolchain's ComPtr.
        *m_clip.GetAddressOf() = new reference::ClipAttributes(false);
        *m_frame.GetAddressOf() = new reference::FrameAttributes;
    }
    ~AttributesSetterTest() override {
        m_clip.Reset();
        m_frame.Reset();
        EXPECT_TRUE(m_session.account().isClean()) << m_session.account().describe();
    }

    /// What arrived at the decoder: code, type and value (numbers in thousandths) of each attribute.
    std::string sent() const {
        std::string text;
        for (const ReferenceDecoderAttribute& attribute : m_session.sentAttributes()) {
            text += characters(attribute.code) + ":" + std::to_string(attribute.type) + "=";
            text += attribute.type == VT_BSTR ? std::string(attribute.text.begin(), attribute.text.end())
                                              : std::to_string(std::llround(attribute.number * 1000));
            text += "|";
        }
        return text;
    }

    const TextAccount m_texts;
    ReferenceDecoderSession m_session;
    Microsoft::WRL::ComPtr<reference::ClipAttributes> m_clip;
    Microsoft::WRL::ComPtr<reference::FrameAttributes> m_frame;
};

TEST_F(AttributesSetterTest, SettingsGoOutInTheirTypesAndTheToneCurveUnderItsGammaAlone) {
    brClipProcessingSettings settings;
    settings.contrast = 0.25f;
    settings.videoBlackLevel = true;
    settings.highlightRecovery = true;
    EXPECT_FALSE(applyClipSettings(m_clip.Get(), settings).failed);
    EXPECT_EQ(sent(), "csgn:18=4000|gamt:8=Blackmagic Design|gace:18=0|gama:8=Blackmagic Design Film|"
                      "hlry:18=1000|lutm:8=Disabled|");
    m_session.reset();
    fill(settings.gamma, "Blackmagic Design Custom");
    EXPECT_FALSE(applyClipSettings(m_clip.Get(), settings).failed);
    EXPECT_EQ(sent(), "csgn:18=4000|gamt:8=Blackmagic Design|gace:18=0|gama:8=Blackmagic Design Custom|"
                      "tcon:4=250|tsat:4=1000|tmid:4=410|thih:4=1000|tsha:4=1000|twit:4=1000|tblk:4=0|"
                      "tvbl:18=1000|hlry:18=1000|lutm:8=Disabled|");
    m_session.reset();
    const brFrameProcessingSettings frame{.iso = 4000000000u, .tint = -150, .exposure = -1.5f};
    EXPECT_FALSE(applyFrameSettings(m_frame.Get(), frame).failed);
    EXPECT_EQ(sent(), "fiso:19=4000000000000|wbkv:19=5500000|wbtn:2=-150000|expo:4=-1500|");
}

// A field without a terminator must not be read into its neighbour.
TEST_F(AttributesSetterTest, TextsEndWithTheirField) {
    brClipProcessingSettings settings;
    fill(settings.gamut, std::string(64, 'g'));
    fill(settings.lutMode, std::string(12, 'l'));
    settings.gamutCompression = true;
    EXPECT_FALSE(applyClipSettings(m_clip.Get(), settings).failed);
    EXPECT_NE(sent().find("|gamt:8=" + std::string(64, 'g') + "|"), std::string::npos) << sent();
    EXPECT_NE(sent().find("|lutm:8=llllllllllll|"), std::string::npos) << sent();
}

// A refusal of what the decoder calls read-only is passed over; any other ends the applier.
TEST_F(AttributesSetterTest, ReadOnlyRefusalsPassAndOthersEndTheApplier) {
    constexpr auto refused = static_cast<int32_t>(E_ACCESSDENIED);
    constexpr auto unknown = static_cast<int32_t>(E_INVALIDARG);
    enum class End { passed, failed, failedAsNothingIsTold };
    const struct {
        ReferenceDecoderControl::AttributeRule rule; // code, set, range, list, read-only
        std::string name;
        End end;
    } refusals[] = {
        {{blackmagicRawClipToneCurveShadows, refused, 0, unknown, 1}, "Shadows", End::passed},
        {{blackmagicRawClipGamut, refused, unknown, 0, 1}, "Gamut", End::passed},
        {{blackmagicRawClipGamut, S_FALSE, unknown, 0, 1}, "Gamut", End::passed},
        {{blackmagicRawClipGamma, refused, unknown, 0, 0}, "Gamma", End::failed},
        {{blackmagicRawClipGamma, refused, unknown, S_FALSE, 1}, "Gamma", End::failedAsNothingIsTold},
        {{blackmagicRawClipHighlightRecovery, refused, unknown, unknown, 1},
         "Highlight Recovery",
         End::failedAsNothingIsTold},
        {{blackmagicRawFrameWhiteBalanceTint, refused, 0, unknown, 1}, "Tint", End::passed},
        {{blackmagicRawFrameExposure, refused, unknown, 0, 1}, "Exposure", End::passed},
        {{blackmagicRawFrameWhiteBalanceKelvin, refused, 0, unknown, 0}, "Color Temp", End::failed},
        {{blackmagicRawFrameISO, refused, unknown, 0, 1}, "ISO", End::passed}, // by its own list alone
        {{blackmagicRawFrameISO, refused, 0, unknown, 1}, "ISO", End::failedAsNothingIsTold},
    };
    brClipProcessingSettings clipSettings;
    fill(clipSettings.gamma, brCustomGamma);
    for (const auto& [rule, name, end] : refusals) {
        SCOPED_TRACE(name);
        m_session.reset();
        m_session.setAttributeRule(rule);
        const LogSession log(vdLogLevel::info);
        vdStatus status = applyClipSettings(m_clip.Get(), clipSettings);
        if (!status.failed)
            status = applyFrameSettings(m_frame.Get(), {});
        std::string lines;
        for (const std::string& line : log.lines())
            lines += line + "\n";
        if (end == End::passed) {
            EXPECT_EQ(status.text(), "");
            EXPECT_NE(sent().find("|expo:"), std::string::npos) << sent();
            EXPECT_NE(lines.find("Setting " + name + " Attribute failed but normal : parameter is ReadOnly"),
                      std::string::npos)
                << lines;
        } else {
            EXPECT_EQ(status.text(),
                      "Setting " + name + " Attribute failed : " + hresultText(E_ACCESSDENIED));
            EXPECT_EQ(sent().rfind(characters(rule.code) + ":"), sent().rfind('|', sent().size() - 2) + 1);
            EXPECT_EQ(lines.find("Call to GetClipAttributeRange for " + name +
                                 " - IsReadOnly impossible to get : ") != lines.npos,
                      end == End::failedAsNothingIsTold)
                << lines;
        }
    }
}

TEST_F(AttributesSetterTest, MissingObjectsAndStringsFail) {
    EXPECT_EQ(applyClipSettings(nullptr, {}).text(),
              "Impossible to set Attribute for ColorScience !! Both processingAttr are nullptr");
    EXPECT_EQ(applyFrameSettings(nullptr, {}).text(),
              "Impossible to set Attribute for ISO !! Both processingAttr are nullptr");
    const brAttribute attribute{blackmagicRawClipGamut, blackmagicRawFrameExposure, "Name"};
    vdStatus status;
    setAttribute(1.0f, attribute, nullptr, m_frame.Get(), status);
    setAttribute(uint32_t{1}, attribute, m_clip.Get(), nullptr, status);
    EXPECT_EQ(status.text(), "Impossible to set Attribute for Name !! Both processingAttr are nullptr");
    status = {};
    setAttribute(static_cast<BSTR>(nullptr), attribute, m_clip.Get(), nullptr, status);
    EXPECT_EQ(status.text(), "Setting Name Attribute failed : " + hresultText(E_OUTOFMEMORY));
    EXPECT_EQ(sent(), "expo:4=1000|");
    bool isReadOnly = true;
    const LogSession log(vdLogLevel::error);
    EXPECT_EQ(checkAttributeReadOnly(nullptr, nullptr, attribute, isReadOnly), S_OK);
    EXPECT_FALSE(isReadOnly);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find("Clip and Frame Processing Attribute are nullptr !!"), std::string::npos);
}

// Hosts and presets keep these names and codes: not one may move or change by mistake.
TEST(ProcessingVocabularyTest, NothingHasChanged) {
    std::ostringstream all;
    const auto add = [&](std::span<const std::string_view> names) {
        for (const std::string_view name : names)
            all << name << '|';
        all << '\n';
    };
    (add(brColorScienceNames), add(brGamutNames), add(brGammaNames), add(brWhiteBalanceNames));
    (add(brLutSourceNames), add(brIsoNames), add(brPresetKindNames));
    for (const uint16_t generation : brColorScienceGenerations)
        all << generation << '|';
    for (const auto& [preset, kelvin, tint] : brWhiteBalances)
        all << preset << ' ' << kelvin << ' ' << tint << '|';
    for (const auto& [name, kind, start, minimum, maximum, flag, choices, a, b] : brParameters) {
        all << name << ' ' << static_cast<uint32_t>(kind) << ' ' << start << ' ' << minimum << ' ' << maximum
            << ' ' << flag << ' ' << a << ' ' << b << ' ';
        add(choices);
    }
    uint32_t checksum = 2166136261u;
    for (const char character : all.str())
        checksum = (checksum ^ static_cast<uint8_t>(character)) * 16777619u;
    EXPECT_EQ(checksum, 4101383884u) << all.str();
}
} // namespace
