#include "Scenario.h"

#include <cstdio>

#include "BitmapPixels.h"
#include "GuardedBitmaps.h"

namespace fs = std::filesystem;

namespace {

/// One thumbnail as the shell asks for it. `onAnswer` is called before anything of ours looks at it.
ScenarioOutcome takeThumbnail(
    const std::wstring& clip, UINT size, const HandlerLibrary* library,
    const std::function<void()>& onAnswer = [] {}) {
    const ThumbnailAnswer answer = askForThumbnail(clip, size, library);
    onAnswer();
    const HBITMAP bitmap = answer.bitmap.get();
    ScenarioOutcome outcome{answer.result, {}, ""};
    if (DIBSECTION section{}; bitmap != nullptr && isThumbnailBitmap(bitmap, section))
        outcome.pixels = readPixels(bitmap, section.dsBmih.biWidth, section.dsBmih.biHeight);
    if (bitmap != nullptr && outcome.pixels.empty())
        outcome.trouble = "the bitmap is no bottom-up DIB section";
    else if ((answer.result == S_OK) != (bitmap != nullptr))
        outcome.trouble = bitmap ? "a picture with " + resultText(answer.result) : "S_OK without a picture";
    return outcome;
}

} // namespace

fs::path builtFile(const char* folder, const wchar_t* name) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    return (fs::path(program).parent_path().parent_path() / folder / name).make_preferred();
}

std::string resultText(HRESULT result) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(result));
    return text;
}

std::string KnownQuestion::trouble(const HandlerLibrary* library, std::optional<HRESULT> orFailure) const {
    const ScenarioOutcome answer = takeThumbnail(clip, size, library);
    if (answer.result == orFailure && answer.pixels.empty())
        return answer.trouble;
    if (answer.result != result)
        return resultText(answer.result) + " instead of " + resultText(result);
    return answer.trouble.empty() && answer.pixels != pixels ? "a wrong picture" : answer.trouble;
}

KnownQuestions::KnownQuestions() {
    const auto file = [this](const char* name, const std::string& bytes) {
        writeFileBytes(m_folder.path() / name, bytes);
        return (m_folder.path() / name).make_preferred().wstring();
    };
    const TestClip clip{64, 48}, deep{64, 48, 4095};
    const std::string bytes = testClipBytes(clip);
    const std::wstring good = file("good.braw", bytes), goodDeep = file("deep.braw", testClipBytes(deep));
    for (const uint32_t factor : {1u, 2u, 4u, 8u}) {
        m_questions.push_back({good, clip.height / factor, S_OK, expectedPicture(clip, factor)});
        m_questions.push_back({goodDeep, deep.height / factor, S_OK, expectedPicture(deep, factor)});
    }
    const std::vector<uint8_t> transparent(size_t{clip.width} * clip.height * 4);
    m_questions.push_back({file("no frames.braw", testHeader(clip, 0)), 48, S_OK, transparent});
    for (const std::wstring& bad :
         {file("cut.braw", bytes.substr(0, bytes.size() / 2)), file("text.braw", "This is not a clip."),
          file("empty.braw", ""), m_folder.path().wstring() + L"\\missing.braw", m_folder.path().wstring(),
          std::wstring()})
        m_questions.push_back({bad, 48, E_FAIL, {}});
    for (const UINT size : {0u, 100'000u, UINT32_MAX})
        m_questions.push_back({good, size, E_FAIL, {}});
}

ThreadSlots::ThreadSlots() {
    for (DWORD slot; (slot = FlsAlloc(nullptr)) != FLS_OUT_OF_INDEXES;)
        m_fiberSlots.push_back(slot);
    for (DWORD slot; (slot = TlsAlloc()) != TLS_OUT_OF_INDEXES;)
        m_slots.push_back(slot);
}

ThreadSlots::~ThreadSlots() {
    std::ranges::for_each(m_fiberSlots, FlsFree);
    std::ranges::for_each(m_slots, TlsFree);
}

bool isDecoderUnloaded() {
    for (int i = 0; i < 400; ++i, Sleep(5))
        if (GetModuleHandleW(L"BlackmagicRawAPI.dll") == nullptr)
            return true;
    return false;
}

Leftovers::Leftovers() {
    DeleteDC(CreateCompatibleDC(nullptr)); // with a process's first one come objects of the system's own
    start();
}

void Leftovers::start() {
    m_decoder.reset();
    m_gdiObjects = countGdiObjects();
}

std::string Leftovers::trouble(bool mayMisuse) const {
    if (!isDecoderUnloaded())
        return "the decoder library stays loaded";
    const ReferenceDecoderAccount account = m_decoder.account();
    if (mayMisuse ? !account.isBalanced() || !account.isSound() : !account.isClean())
        return account.describe();
    if (const uint32_t now = countGdiObjects(); now != m_gdiObjects)
        return "GDI objects: " + std::to_string(now) + " instead of " + std::to_string(m_gdiObjects);
    return {};
}

Scenario::Scenario(ThumbnailScenarioSettings settings) : m_settings(std::move(settings)) {
    const TestClip clip{320, 180};
    writeTestClip(m_clipPath, clip);
    if (m_settings.size > 45 && m_settings.size <= 90)
        m_expected = expectedPicture(clip, 2);
}

ScenarioOutcome Scenario::run(const std::vector<ReferenceDecoderFault>& faults,
                              uint32_t jobDelayMilliseconds) {
    m_leftovers.start();
    decoder().setGuardResources(true);
    decoder().setJobDelay(jobDelayMilliseconds);
    decoder().setManners(m_manners);
    for (const ReferenceDecoderFault& fault : faults)
        decoder().arm(fault);
    ScenarioOutcome outcome = ask();
    decoder().disarm();
    return outcome;
}

std::string Scenario::troubleAfter(const ScenarioOutcome& outcome, Expected expected) const {
    if (!outcome.trouble.empty())
        return outcome.trouble;
    if (const std::string left = m_leftovers.trouble(expected != Expected::picture); !left.empty())
        return left;
    if (!isFree(m_clipPath))
        return "the clip is still open";
    return pictureTrouble(outcome, expected);
}

std::string Scenario::pictureTrouble(const ScenarioOutcome& outcome, Expected expected) const {
    const auto& [result, pixels, trouble] = outcome;
    if (result != S_OK && (SUCCEEDED(result) || expected == Expected::picture))
        return "no picture but " + resultText(result);
    if ((result == S_OK) != !pixels.empty())
        return "picture and result " + resultText(result) + " do not agree";
    const bool isKnown = result == S_OK && expected != Expected::anythingBounded;
    return isKnown && pixels != m_expected ? "S_OK with a wrong picture" : "";
}

void Scenario::forgetRefusedResource() {
    isDecoderUnloaded();
    auto& account = referenceDecoderControl().account;
    if (account.liveResources == 1)
        account.liveResources = account.liveResourceBytes = account.unbalancedUnloads = 0;
}

std::string Scenario::troubleInGoodRun() {
    const ScenarioOutcome outcome = run();
    if (m_expected.empty())
        m_expected = outcome.pixels;
    return troubleAfter(outcome, Expected::picture);
}

std::string Scenario::orTroubleInNextRun(const std::string& trouble) {
    const std::string next = trouble.empty() ? troubleInGoodRun() : "";
    return next.empty() ? trouble : "the next one, without the fault: " + next;
}

ScenarioOutcome Scenario::ask() {
    onStart();
    if (m_library.module() == nullptr && m_library.load(m_settings.handler) == S_OK) {
        guardBitmapsOf(m_library.module());
        m_settings.onLoad(m_library.module());
    }
    if (m_library.module() == nullptr) { // a refusal to be loaded, which the shell takes for an answer
        onEnd();
        return {};
    }
    ScenarioOutcome outcome = takeThumbnail(m_clipPath, m_settings.size, &m_library, onEnd);
    if (m_library.call("DllCanUnloadNow") != S_OK)
        outcome.trouble = "an object of the handler was not released";
    else if (m_settings.unloadEachRun &&
             (m_library.unload() != S_OK || GetModuleHandleW(m_settings.handler.c_str()) != nullptr))
        outcome.trouble = "the handler cannot be unloaded";
    return outcome;
}

std::unique_ptr<Scenario> makeThumbnailScenario(const ThumbnailScenarioSettings& settings) {
    return std::make_unique<Scenario>(settings);
}
