// What the reference decoder shares with the process that uses it: its account, its recording of calls, the
// faults it shall show and its settings. The block lies in memory named after the process, made by whoever
// comes first, so that it survives the library's unloading as long as a ReferenceDecoderSession lives.
//
// The layout is fixed within one build of both sides; all bytes zero is the block's valid initial state.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

/// How the decoder behaves where the contract leaves the choice to it. None is as friendly as can be.
enum class ReferenceDecoderManners : uint32_t {
    none = 0,
    resourceManagerHoldsCodec = 1 << 0, ///< the codec lives until its resource managers are gone
    callbackIsNotCounted = 1 << 1,      ///< the codec keeps its callback without a reference
    lastReleaseDoesNotWait = 1 << 2,    ///< jobs run on, and call back, after the codec's last release
    threadsDoNotHoldLibrary = 1 << 3,   ///< unloading takes the code from under threads that still run
    submitCompletesFirst = 1 << 4,      ///< Submit returns after the completion has; in one, after it began
    changingThreads = 1 << 5,           ///< each job and its completion on a thread of its own
    lateCompletions = 1 << 6,           ///< some time passes between a job's work and its completion
    ascendingResolutions = 1 << 7,      ///< the smallest first
    shuffledResolutions = 1 << 8,       ///< in no order, one of them twice
    otherSuccessCodes = 1 << 9,         ///< calls and completions succeed with S_FALSE and other codes
    buffersNeedMore = 1 << 10,          ///< sizes are larger than the picture, and the rest is written to
    sizeBeforeTurning = 1 << 11,        ///< a clip's own size is that of the picture as it is stored
    resolutionsBeforeTurning = 1 << 12, ///< and so are its resolutions
    noWorkingMemory = 1 << 13,          ///< a GPU processes without a working buffer
};

constexpr ReferenceDecoderManners operator|(ReferenceDecoderManners a, ReferenceDecoderManners b) {
    return static_cast<ReferenceDecoderManners>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}
constexpr bool operator&(ReferenceDecoderManners a, ReferenceDecoderManners b) {
    return (static_cast<uint32_t>(a) & static_cast<uint32_t>(b)) != 0;
}

enum class ReferenceDecoderFaultKind : uint32_t {
    none,
    fail, ///< a call returns HRESULT(value) without doing its work; a callback is given it as its result
    succeedEmpty, ///< a call returns S_OK with null or zero outputs, its work undone; a callback gets no
                  ///< object
    oneLess,      ///< number outputs are one less
    allOnes,      ///< number outputs are 0xFFFFFFFF, or no number
    zero,         ///< number outputs are 0, the work done
    value,        ///< number outputs are `value`
    drop,         ///< a callback never comes
    delay,        ///< the call or callback first sleeps `value` milliseconds
    // What ends or stops the process, on whatever thread the call or callback comes.
    nullWrite,
    stackOverflow,
    abort,
    failFast,
    terminate,         ///< by TerminateProcess, with `value` as exit code
    exceptionOnThread, ///< on a thread of its own
    hang,              ///< for ever
    eatMemory,         ///< takes `value` MiB for good, or what the system gives, then works as usual
};

struct ReferenceDecoderControl {
    static constexpr uint32_t maximumCallNames = 192;
    static constexpr uint32_t maximumRecording = 1024;
    static constexpr uint32_t maximumFaults = 4;
    static constexpr uint32_t maximumAttributes = 128;
    static constexpr uint32_t maximumRules = 32;

    /// Counters. `live*` are true at any time; the others count since the session's last reset.
    struct Account {
        std::atomic<int64_t> liveReferences; ///< AddRef less Release over all interfaces
        std::atomic<int64_t> liveObjects;
        std::atomic<int64_t> liveResources;
        std::atomic<int64_t> liveResourceBytes;
        std::atomic<int64_t> peakResourceBytes;
        std::atomic<int64_t> overReleases;     ///< Release or AddRef on an object already gone
        std::atomic<int64_t> usesAfterRelease; ///< other calls on an object already gone
        std::atomic<int64_t> resourceFaults;   ///< released twice, unknown, or named with a wrong type
        std::atomic<int64_t> badArguments;     ///< other breaches of the contract
        std::atomic<int64_t> callbackThrows;   ///< exceptions that left a callback
        std::atomic<int64_t> jobsSubmitted;
        std::atomic<int64_t> jobsCompleted;
        std::atomic<int64_t> jobsWithLut;
        std::atomic<int64_t> statesWithClipAttributes;
        std::atomic<int64_t> statesWithFrameAttributes;
        std::atomic<int64_t> copiesAsync; ///< between resources, that need not be done at once
        std::atomic<int64_t> loads;       ///< of the library; not counted where the decoder is linked in
        std::atomic<int64_t> unloads;
        std::atomic<int64_t> unbalancedUnloads;
        std::atomic<int64_t> faultsFired;
        std::atomic<int64_t> callerNanoseconds;          ///< in calls on threads that aren't the decoder's
        std::atomic<int64_t> callbackNanoseconds;        ///< in callbacks, calls made from them included
        std::atomic<int64_t> callbackLibraryNanoseconds; ///< in calls made from callbacks
    };

    struct CallName {
        char text[60];
        std::atomic<uint32_t> occurrences;
    };

    struct RecordedCall {
        uint32_t name;       ///< index into `callNames`
        uint32_t occurrence; ///< 1 for the first
    };

    struct Fault {
        std::atomic<ReferenceDecoderFaultKind> kind;
        uint32_t name;
        uint32_t occurrence; ///< 1 for the first since the reset; 0 for every one
        int64_t value;
    };

    /// A processing attribute as it was sent, refused ones included.
    struct SentAttribute {
        uint32_t code;
        uint32_t type; ///< VARTYPE
        double number;
        wchar_t text[80]; ///< its beginning
        int32_t result;   ///< HRESULT given
    };

    /// How an attribute behaves where it shall not behave as usual.
    struct AttributeRule {
        uint32_t code;
        int32_t setResult;
        int32_t rangeResult;
        int32_t listResult;
        uint32_t isReadOnly;
    };

    Account account;

    std::atomic<uint32_t> namesLock;
    std::atomic<uint32_t> callNameCount;
    CallName callNames[maximumCallNames];

    std::atomic<uint32_t> recordedCount; ///< may exceed maximumRecording: calls beyond it aren't kept
    RecordedCall recording[maximumRecording];
    std::atomic<uint32_t> latestCall; ///< 1 + index into `callNames` of what was entered last on any thread

    Fault faults[maximumFaults];

    std::atomic<ReferenceDecoderManners> manners;
    std::atomic<uint32_t> jobDelayMilliseconds;  ///< every job sleeps this long before it runs
    std::atomic<uint32_t> readDelayMilliseconds; ///< read jobs this much longer
    std::atomic<uint32_t> guardResources; ///< resources end at an inaccessible page, are not reused soon
    std::atomic<uint32_t> clipsHaveLut;

    std::atomic<uint32_t> sentAttributeCount;
    SentAttribute sentAttributes[maximumAttributes];
    std::atomic<uint32_t> ruleCount;
    AttributeRule rules[maximumRules];
};

static_assert(std::atomic<int64_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free);

/// Whether the decoder shall have any of these manners.
bool referenceDecoderHas(ReferenceDecoderManners manners);

/// The environment variable that names the block to use instead of the process's own: processes that were
/// started with it share one.
inline constexpr wchar_t referenceDecoderBlockVariable[] = L"REFERENCE_DECODER_BLOCK";

/// Arms a fault; `occurrence` 0 is every one. More than maximumFaults at a time are ignored.
void armReferenceDecoder(ReferenceDecoderControl& control, const char* name, uint32_t occurrence,
                         ReferenceDecoderFaultKind kind, int64_t value);

/// Adds to the block what the environment variable REFERENCE_DECODER asks for: words with commas between,
/// each the name of a manner, `jobDelay=MILLISECONDS`, `readDelay=MILLISECONDS` or a fault as
/// `KIND@CALL#OCCURRENCE=VALUE`, where `#OCCURRENCE` (every one without it) and `=VALUE` (0 without it, may
/// be hexadecimal) may be left out. A word that is none of these ends the process with a line on its standard
/// error: what was to be tried would not be.
void applyReferenceDecoderEnvironment(ReferenceDecoderControl& control);

/// The block's name: that of the environment or, without one, this process's own.
std::wstring referenceDecoderBlockName();

/// This process's block. The module that asks keeps a view of it until it is unloaded; whoever makes it
/// applies the environment to it.
ReferenceDecoderControl& referenceDecoderControl();

/// The name of the call that was entered last, into the library or out of it; "none" when there was none.
/// Takes no memory and no lock.
const char* referenceDecoderLatestCall();

/// The index of a call's name in the block, entered if it is new.
uint32_t referenceDecoderCallName(ReferenceDecoderControl& control, const char* name);
