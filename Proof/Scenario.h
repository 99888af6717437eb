// What the proof asks the products, over and over: for pictures that are known, and for one that trouble can
// be sent to. And what may not be left once the answer is there.
#pragma once

#include "GdiObjects.h"
#include "HandlerHost.h"
#include "ReferenceDecoderSession.h"
#include "TemporaryFolder.h"
#include "TestClips.h"

/// The full path of a file of this build: `folder` as it is called in the build folder.
std::filesystem::path builtFile(const char* folder, const wchar_t* name = L"Clipforge_Thumbnails.dll");

/// "0x80004005"
std::string resultText(HRESULT result);

/// A question to the handler and its only right answer.
struct KnownQuestion {
    std::wstring clip;
    UINT size;
    HRESULT result;
    std::vector<uint8_t> pixels; ///< as expectedPicture's; of a picture alone

    /// Asks and compares to the last pixel. Empty when the answer is right, or that failure.
    std::string trouble(const HandlerLibrary* library, std::optional<HRESULT> orFailure = {}) const;
};

/// Good and bad clips at good and bad sizes; the files live as long as the object. Read by any thread.
class KnownQuestions {
public:
    KnownQuestions();
    const std::vector<KnownQuestion>& all() const { return m_questions; }
    /// A clip of 64 by 48 at its full size.
    const KnownQuestion& good() const { return m_questions.front(); }

private:
    TemporaryFolder m_folder;
    std::vector<KnownQuestion> m_questions;
};

/// Takes all of the process's free slots for what threads keep, of either kind, for as long as it lives.
class ThreadSlots {
public:
    ThreadSlots();
    ~ThreadSlots();
    ThreadSlots(const ThreadSlots&) = delete;
    ThreadSlots& operator=(const ThreadSlots&) = delete;
    int64_t count() const { return static_cast<int64_t>(m_fiberSlots.size() + m_slots.size()); }

private:
    std::vector<DWORD> m_fiberSlots, m_slots;
};

/// Waits until the decoder library is gone, which goes with its last thread; false when it stays.
bool isDecoderUnloaded();

/// Looks what was left behind since its making or the last start.
class Leftovers {
public:
    Leftovers();
    void start();
    /// Empty when all references, resources and GDI objects came back and the decoder library is gone. Whom
    /// the decoder lied to may have passed it wrong arguments.
    std::string trouble(bool mayMisuse = false) const;
    ReferenceDecoderSession& decoder() { return m_decoder; }

private:
    ReferenceDecoderSession m_decoder;
    uint32_t m_gdiObjects = 0;
};

struct ScenarioOutcome {
    HRESULT result = E_FAIL;
    std::vector<uint8_t> pixels; ///< as expectedPicture's; empty unless the result is S_OK
    std::string trouble;         ///< a breach that only the run itself could see
};

/// What a run is to give.
enum class Expected {
    picture,         ///< S_OK and the right picture
    rightIfAny,      ///< a failure, or the right picture
    anythingBounded, ///< a failure, or a picture: the decoder lied about what it shows
};

struct ThumbnailScenarioSettings {
    std::filesystem::path handler = builtFile("bin");
    UINT size = 64; ///< above 180 asks for more than the clip has
    bool unloadEachRun = false;
    std::function<void(HMODULE)> onLoad = [](HMODULE) {}; ///< called each time that the library was loaded
};

/// A thumbnail through the handler library, by COM's rules.
class Scenario {
public:
    explicit Scenario(ThumbnailScenarioSettings settings);

    const std::string& name() const { return m_name; }
    ReferenceDecoderSession& decoder() { return m_leftovers.decoder(); }

    /// One run against a decoder that shows these faults and whose jobs each take so long. The session is
    /// reset before, so account and recording are this run's alone.
    ScenarioOutcome run(const std::vector<ReferenceDecoderFault>& faults = {},
                        uint32_t jobDelayMilliseconds = 0);
    /// What is not as it must be after that run; empty when all is well.
    std::string troubleAfter(const ScenarioOutcome& outcome, Expected expected) const;
    /// The picture's part of that.
    std::string pictureTrouble(const ScenarioOutcome& outcome, Expected expected) const;
    /// To be called first after a run in which the decoder refused to take a resource back: it, and no other,
    /// is still out, and is forgotten.
    void forgetRefusedResource();
    /// A run with nothing in its way must give the right picture and leave nothing.
    std::string troubleInGoodRun();
    /// `trouble`, or when there is none that of a good run after it.
    std::string orTroubleInNextRun(const std::string& trouble);

    /// How the decoder behaves in the runs from here on.
    void setManners(ReferenceDecoderManners manners) { m_manners = manners; }

    /// Called right before and right after the product's own work of a run.
    std::function<void()> onStart = [] {}, onEnd = [] {};

private:
    ScenarioOutcome ask();

    ThumbnailScenarioSettings m_settings;
    std::string m_name = "thumbnail " + std::to_string(m_settings.size);
    TemporaryFolder m_folder;
    std::filesystem::path m_clipPath = (m_folder.path() / "clip.braw").make_preferred();
    Leftovers m_leftovers;
    ReferenceDecoderManners m_manners = ReferenceDecoderManners::none;
    std::vector<uint8_t> m_expected; ///< of a good run; learnt from the first when empty
    HandlerLibrary m_library;
};

std::unique_ptr<Scenario> makeThumbnailScenario(const ThumbnailScenarioSettings& settings = {});
