#include "ProbeStages.h"

#include <algorithm>
#include <cmath>
#include <cwctype>
#include <iterator>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Console.h"
#include "Paths.h"
#include "ProbeMeeting.h"
#include "Utils/vdModule.h"

namespace probe {

namespace {

// What operations give back, typed as their declarations say.
template <class>
struct Signature;
template <class Interface, class Result, class... Argument>
struct Signature<Result (STDMETHODCALLTYPE Interface::*)(Argument...)> {
    using Arguments = std::tuple<Argument...>;
};
/// The number, code or flag that argument `n` of an operation points to.
template <auto operation, size_t n>
using Given =
    std::remove_pointer_t<std::tuple_element_t<n, typename Signature<decltype(operation)>::Arguments>>;

template <class Number>
uint64_t numberOf(Number value) {
    if constexpr (std::is_enum_v<Number>)
        return numberOf(static_cast<std::underlying_type_t<Number>>(value));
    else if constexpr (std::is_same_v<Number, bool>)
        return value ? 1 : 0;
    else
        return static_cast<std::make_unsigned_t<Number>>(value);
}

std::wstring codeText(uint64_t code) {
    std::wstring text = L"''";
    for (int shift = 0; shift < 32; shift += 8) {
        const auto character = static_cast<wchar_t>(code >> shift & 0xFF);
        if (character < L' ' || character > L'~' || code > UINT32_MAX)
            return hexadecimal(static_cast<HRESULT>(code));
        text.insert(1, 1, character);
    }
    return text;
}

std::wstring sizeText(uint32_t width, uint32_t height) {
    return std::to_wstring(width) + L" x " + std::to_wstring(height);
}

/// Success with a number that must lie within bounds.
Outcome numberWithin(HRESULT result, uint64_t value, uint64_t least, uint64_t most, const wchar_t* unit) {
    Outcome outcome{result, std::to_wstring(value) + unit};
    if (value < least || value > most)
        outcome.doubt = L"it must be " + std::to_wstring(least) + L" to " + std::to_wstring(most);
    return outcome;
}

Outcome codeGiven(HRESULT result, uint64_t code) {
    Outcome outcome{result, codeText(code)};
    if (!outcome.value.starts_with(L'\''))
        outcome.doubt = L"such codes are four letters";
    return outcome;
}

Outcome flagGiven(HRESULT result, uint64_t flag) {
    Outcome outcome{result, std::to_wstring(flag)};
    if (flag > 1)
        outcome.doubt = L"a flag is 0 or 1";
    return outcome;
}

bool isReadable(const void* address, bool asCode) {
    MEMORY_BASIC_INFORMATION memory{};
    constexpr DWORD code = PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    return VirtualQuery(address, &memory, sizeof memory) != 0 && memory.State == MEM_COMMIT &&
           (memory.Protect & (PAGE_NOACCESS | PAGE_GUARD)) == 0 && (!asCode || (memory.Protect & code) != 0);
}

/// Success with an object, which must look like one: a table of functions that are code.
Outcome objectGiven(HRESULT result, IUnknown* object) {
    Outcome outcome{result};
    if (FAILED(result))
        return outcome;
    if (object == nullptr) {
        outcome.doubt = L"success, but no object";
        return outcome;
    }
    const bool hasTable = isReadable(object, false) && isReadable(*reinterpret_cast<void***>(object), false);
    if (!hasTable || !isReadable(**reinterpret_cast<void***>(object), true))
        outcome.doubt = L"what was handed out is no object";
    return outcome;
}

template <class Operation>
Outcome textGiven(const Operation& ask) {
    BSTR text = nullptr;
    Outcome outcome{ask(&text)};
    if (FAILED(outcome.result))
        return outcome;
    const UINT length = text != nullptr ? SysStringLen(text) : 0;
    if (length == 0 || length > 1000 || std::any_of(text, text + length, iswcntrl))
        outcome.doubt = length == 0 ? L"success, but no text" : L"that is no text";
    else
        outcome.value = L"\"" + std::wstring(text, length) + L"\"";
    SysFreeString(text);
    return outcome;
}

constexpr uint32_t kLargestSide = 65'536;
constexpr uint64_t kLargestBuffer = uint64_t{3} << 30;
constexpr uint32_t kBytesPerPixel = 4;

uint64_t pictureBytes(const Holdings& h) {
    return uint64_t{h.chosen.width} * h.chosen.height * kBytesPerPixel;
}

template <class Interface>
Outcome askFor(IUnknown& object, Microsoft::WRL::ComPtr<Interface>& place) {
    const HRESULT result = object.QueryInterface(identifierOf<Interface>(),
                                                 reinterpret_cast<void**>(place.ReleaseAndGetAddressOf()));
    return objectGiven(result, place.Get());
}

Outcome walkPipelines(Meeting& m) {
    constexpr int limit = 32;
    Outcome outcome;
    Given<&IBlackmagicRawPipelineIterator::GetPipeline, 0> code{}, former{};
    bool hasCpu = false;
    for (int count = 0; SUCCEEDED(m.holdings.pipelines->GetPipeline(&code)) && numberOf(code) != 0;) {
        if (code == former)
            break;
        former = code;
        hasCpu = hasCpu || code == blackmagicRawPipelineCPU;
        outcome.value += (count == 0 ? L"" : L", ") + codeText(numberOf(code));
        if (++count == limit) {
            outcome.doubt = L"so many pipelines";
            return outcome;
        }
        if (FAILED(m.holdings.pipelines->Next()))
            break;
    }
    if (!hasCpu)
        outcome.doubt = L"the CPU pipeline is not among them";
    return outcome;
}

Outcome countResolutions(Meeting& m) {
    uint32_t count = 0;
    const HRESULT result = m.holdings.resolutions->GetResolutionCount(&count);
    Outcome outcome = numberWithin(result, count, 1, 64, L"");
    if (outcome.doubt.empty())
        m.holdings.sizes.resize(count);
    return outcome;
}

Outcome readResolutions(Meeting& m) {
    Holdings& h = m.holdings;
    Outcome outcome;
    for (uint32_t i = 0; i < h.sizes.size(); ++i) {
        auto& [width, height, scale] = h.sizes[i];
        outcome.result = h.resolutions->GetResolution(i, &width, &height);
        if (FAILED(outcome.result))
            return outcome;
        outcome.value += (i == 0 ? L"" : L", ") + sizeText(width, height);
        if (width == 0 || height == 0 || width > std::max(h.width, h.height) ||
            height > std::max(h.width, h.height))
            outcome.doubt = L"a picture of " + sizeText(width, height) + L" from a clip of " +
                            sizeText(h.width, h.height);
    }
    return outcome;
}

Outcome readScales(Meeting& m) {
    Holdings& h = m.holdings;
    Outcome outcome;
    for (auto& [width, height, scale] : h.sizes) {
        outcome.result = h.resolutions->GetClosestScaleForResolution(width, height, &scale);
        if (FAILED(outcome.result))
            return outcome;
        const Outcome code = codeGiven(outcome.result, numberOf(scale));
        outcome.value += (outcome.value.empty() ? L"" : L", ") + code.value;
        outcome.doubt = outcome.doubt.empty() ? code.doubt : outcome.doubt;
    }
    return outcome;
}

Outcome checkScales(Meeting& m) {
    Holdings& h = m.holdings;
    Outcome outcome;
    for (const auto& [width, height, scale] : h.sizes) {
        uint32_t otherWidth = 0, otherHeight = 0;
        outcome.result = h.resolutions->GetClosestResolutionForScale(scale, &otherWidth, &otherHeight);
        if (FAILED(outcome.result))
            return {outcome.result};
        if (otherWidth != width || otherHeight != height)
            outcome.doubt = codeText(numberOf(scale)) + L" gives " + sizeText(otherWidth, otherHeight) +
                            L" and not " + sizeText(width, height);
        // The smallest that is no smaller than a thumbnail of 256, else the largest.
        const auto side = [](const Holdings::Resolution& size) { return std::min(size.width, size.height); };
        const Holdings::Resolution size{width, height, scale};
        const bool isEnough = side(size) >= 256, wasEnough = side(h.chosen) >= 256;
        if (isEnough != wasEnough ? isEnough
                                  : (side(size) < side(h.chosen)) == isEnough || side(h.chosen) == 0)
            h.chosen = size;
    }
    if (outcome.doubt.empty())
        outcome.value = L"the same sizes";
    return outcome;
}

/// A size query's answer, kept for what follows.
Outcome bufferSize(HRESULT result, uint32_t bytes, uint64_t least, uint32_t& place) {
    place = bytes;
    return numberWithin(result, bytes, least, kLargestBuffer, L" bytes");
}

Outcome createHostBuffer(Meeting& m, uint32_t bytes, void*& place) {
    const HRESULT result =
        m.holdings.resources->CreateResource(nullptr, nullptr, bytes, blackmagicRawResourceTypeBufferCPU,
                                             blackmagicRawResourceUsageReadCPUWriteCPU, &place);
    Outcome outcome{result};
    if (SUCCEEDED(result) && place == nullptr)
        outcome.doubt = L"success, but no memory";
    else if (SUCCEEDED(result) &&
             (!isReadable(place, false) || !isReadable(static_cast<char*>(place) + bytes - 1, false)))
        outcome.doubt = L"what was handed out is no memory of " + std::to_wstring(bytes) + L" bytes";
    return outcome;
}

Outcome releaseHostBuffer(Meeting& m, void*& place) {
    void* const resource = std::exchange(place, nullptr);
    return {m.holdings.resources->ReleaseResource(nullptr, nullptr, resource,
                                                  blackmagicRawResourceTypeBufferCPU)};
}

Outcome labelJob(Meeting& m) {
    return {m.holdings.job->SetUserData(&m)};
}

/// The completion comes from here on, perhaps before Submit returns: nothing of the meeting's is touched
/// after it.
Outcome submitJob(Meeting& m) {
    const Microsoft::WRL::ComPtr<IBlackmagicRawJob> job = std::move(m.holdings.job);
    m.awaitNextCompletion();
    return {job->Submit()};
}

Outcome readLabel(Meeting& m) {
    void* label = nullptr;
    Outcome outcome{m.holdings.completedJob->GetUserData(&label)};
    if (SUCCEEDED(outcome.result) && label != &m)
        outcome.doubt = L"another value than the one that was set";
    return outcome;
}

Outcome completion(const Meeting& m) {
    Outcome outcome{m.holdings.completedResult};
    if (m.holdings.completedJob == nullptr)
        outcome.doubt = L"no job was given";
    return outcome;
}

Outcome flush(Meeting& m) {
    Outcome outcome{m.holdings.codec->FlushJobs()};
    if (SUCCEEDED(outcome.result) && !m.isPictureThere(0) && m.isPictureThere(2'000))
        outcome.doubt = L"it returned before the last completion had";
    return outcome;
}

/// What became of the memory that the picture belongs in.
Outcome judgePicture(Meeting& m) {
    m.sketchPicture();
    const Holdings& h = m.holdings;
    const auto pixels = std::span(h.picture.data(), static_cast<size_t>(pictureBytes(h)));
    size_t untouched = 0, opaque = 0;
    bool isOneColour = true;
    for (size_t i = 0; i < pixels.size(); i += kBytesPerPixel) {
        const auto pixel = pixels.subspan(i, kBytesPerPixel);
        untouched += std::ranges::count(pixel, GuardedBuffer::filler) == kBytesPerPixel;
        opaque += pixel[3] == 255;
        isOneColour = isOneColour && std::ranges::equal(pixel, pixels.first(kBytesPerPixel));
    }
    const size_t count = pixels.size() / kBytesPerPixel;
    Outcome outcome{S_OK, sizeText(h.imageWidth, h.imageHeight)};
    outcome.value += isOneColour ? L", all of one colour" : L"";
    outcome.value += opaque == count ? L", opaque" : L", not all of it opaque";
    if (untouched > count / 4)
        outcome.doubt =
            std::to_wstring(untouched) + L" of " + std::to_wstring(count) + L" pixels were not written";
    return outcome;
}

template <class Interface>
Outcome giveBack(Microsoft::WRL::ComPtr<Interface>& held) {
    if (!held)
        return {S_OK, L"none is held"};
    const ULONG left = held.Detach()->Release();
    return {S_OK, std::to_wstring(left) + L" references left"};
}

// The table's shorthands: an operation by interface and name, a QueryInterface by what it asks for.
#define WIDE(text) L"" text
#define OPERATION(interface, operation) WIDE(#interface), WIDE(#operation)
#define SLOT(interface, operation) [] { return slotOf(&interface::operation); }
#define CALL(interface, operation, note)                                                                     \
    OPERATION(interface, operation), note, SLOT(interface, operation), nullptr
#define KNOWN(interface, operation, note)                                                                    \
    OPERATION(interface, operation), note, SLOT(interface, operation), identifierOf<interface>
#define ASK(object, interface)                                                                               \
    OPERATION(object, QueryInterface), WIDE("for " #interface), [] { return 0; }, identifierOf<interface>
#define RUN [](Meeting & m) -> Outcome
#define GIVE_BACK(interface, member)                                                                         \
    {                                                                                                        \
        closing, CALL(interface, Release, L""), needed, report, kBadRelease, RUN {                           \
            return giveBack(m.holdings.member);                                                              \
        }                                                                                                    \
    }
#define HELD [[maybe_unused]] Holdings& h = m.holdings

constexpr bool needed = true, extra = false;
using enum Segment;
using enum Remedy;

constexpr const wchar_t* kRefusedInterface =
    L"the library does not know this identifier: it is a library of another version, or the declarations "
    L"that "
    L"this program was built with have another identifier than the maker's";
constexpr const wchar_t* kRefusedStart =
    L"the library cannot work here: a file or a processor feature that it needs "
    L"is missing";
constexpr const wchar_t* kUnknownOperation =
    L"the library does not do this, or another operation stands in this slot";
constexpr const wchar_t* kBadClip = L"the library cannot read this clip";
constexpr const wchar_t* kBadFrame =
    L"the library cannot decode this frame, or was given the wrong thing because "
    L"another operation stands in this slot";
constexpr const wchar_t* kBadRelease = L"something is given back that the library does not expect";

// clang-format off
constexpr Stage kStages[] = {
    {starting, L"", L"LoadLibraryEx", L"", nullptr, nullptr, needed, library,
     L"a DLL that the library needs is missing beside it, or it refuses to start on this machine",
     RUN { HELD;
         h.module = loadLibraryIsolated(m.libraryPath()); // as the handler does
         return {h.module != nullptr ? S_OK : lastError()}; }},
    {starting, L"", L"GetProcAddress", L"CreateBlackmagicRawFactoryInstance", nullptr, nullptr, needed, library,
     L"this is a DLL, but not the decoder library: it has no such entry point",
     RUN { HELD;
         const FARPROC entry = GetProcAddress(h.module, "CreateBlackmagicRawFactoryInstance");
         h.entry = reinterpret_cast<CreateBlackmagicRawFactoryInstanceFunction>(reinterpret_cast<void*>(entry));
         return {entry != nullptr ? S_OK : lastError()}; }},
    {starting, L"", L"CreateBlackmagicRawFactoryInstance", L"", nullptr, nullptr, needed, library, kRefusedStart,
     RUN { HELD; *h.factory.ReleaseAndGetAddressOf() = h.entry(); return objectGiven(S_OK, h.factory.Get()); }},

    {starting, CALL(IBlackmagicRawFactory, CreatePipelineIterator, L""), needed, declarations, kUnknownOperation,
     RUN { HELD;
         const HRESULT result = h.factory->CreatePipelineIterator(blackmagicRawInteropNone, &h.pipelines);
         return objectGiven(result, h.pipelines.Get()); }},
    {starting, CALL(IBlackmagicRawPipelineIterator, GetPipeline, L"the first"), needed, declarations, kUnknownOperation,
     RUN { HELD; Given<&IBlackmagicRawPipelineIterator::GetPipeline, 0> code{};
         const HRESULT result = h.pipelines->GetPipeline(&code);
         return codeGiven(result, numberOf(code)); }},
    {starting, CALL(IBlackmagicRawPipelineIterator, Next, L"to the end"), needed, declarations, kUnknownOperation,
     walkPipelines},
    {starting, CALL(IBlackmagicRawFactory, CreatePipelineDeviceIterator, L"CPU"), needed, declarations, kUnknownOperation,
     RUN { HELD;
         const HRESULT result = h.factory->CreatePipelineDeviceIterator(blackmagicRawPipelineCPU,
                                                                        blackmagicRawInteropNone, &h.devices);
         return objectGiven(result, h.devices.Get()); }},
    {starting, CALL(IBlackmagicRawPipelineDeviceIterator, CreateDevice, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.devices->CreateDevice(&h.device); return objectGiven(result, h.device.Get()); }},
    {starting, CALL(IBlackmagicRawPipelineDevice, GetInstructionSet, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; Given<&IBlackmagicRawPipelineDevice::GetInstructionSet, 0> code{};
         const HRESULT result = h.device->GetInstructionSet(&code);
         return codeGiven(result, numberOf(code)); }},
    {starting, CALL(IBlackmagicRawPipelineDevice, GetIndex, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; uint32_t index = 0;
         const HRESULT result = h.device->GetIndex(&index);
         return numberWithin(result, index, 0, 255, L""); }},
    {starting, CALL(IBlackmagicRawPipelineDevice, GetName, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; return textGiven([&](BSTR* text) { return h.device->GetName(text); }); }},
    {starting, CALL(IBlackmagicRawPipelineDevice, GetInterop, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; Given<&IBlackmagicRawPipelineDevice::GetInterop, 0> code{};
         const HRESULT result = h.device->GetInterop(&code);
         return codeGiven(result, numberOf(code)); }},
    {starting, CALL(IBlackmagicRawPipelineDevice, GetPipelineName, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; return textGiven([&](BSTR* text) { return h.device->GetPipelineName(text); }); }},

    {starting, CALL(IBlackmagicRawFactory, CreateCodec, L""), needed, declarations, kRefusedStart,
     RUN { HELD; const HRESULT result = h.factory->CreateCodec(&h.codec); return objectGiven(result, h.codec.Get()); }},
    {starting, ASK(IBlackmagicRaw, IBlackmagicRawConfiguration), needed, declarations, kRefusedInterface,
     RUN { HELD; return askFor(*h.codec.Get(), h.configuration); }},
    {starting, KNOWN(IBlackmagicRawConfiguration, GetVersion, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; return textGiven([&](BSTR* text) { return h.configuration->GetVersion(text); }); }},
    {starting, KNOWN(IBlackmagicRawConfiguration, GetCameraSupportVersion, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; return textGiven([&](BSTR* text) { return h.configuration->GetCameraSupportVersion(text); }); }},
    {starting, KNOWN(IBlackmagicRawConfiguration, GetCPUThreads, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; uint32_t count = 0;
         const HRESULT result = h.configuration->GetCPUThreads(&count);
         return numberWithin(result, count, 0, 4096, L""); }},
    {starting, KNOWN(IBlackmagicRawConfiguration, GetMaxCPUThreadCount, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; uint32_t count = 0;
         const HRESULT result = h.configuration->GetMaxCPUThreadCount(&count);
         return numberWithin(result, count, 1, 4096, L""); }},
    {starting, KNOWN(IBlackmagicRawConfiguration, IsPipelineSupported, L"CPU"), extra, declarations, kUnknownOperation,
     RUN { HELD; Given<&IBlackmagicRawConfiguration::IsPipelineSupported, 1> flag{};
         const HRESULT result = h.configuration->IsPipelineSupported(blackmagicRawPipelineCPU, &flag);
         Outcome outcome = flagGiven(result, numberOf(flag));
         if (numberOf(flag) == 0)
             outcome.doubt = L"the library has just listed it";
         return outcome; }},
    {starting, KNOWN(IBlackmagicRawConfiguration, GetWriteMetadataPerFrame, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; Given<&IBlackmagicRawConfiguration::GetWriteMetadataPerFrame, 0> flag{};
         const HRESULT result = h.configuration->GetWriteMetadataPerFrame(&flag);
         return flagGiven(result, numberOf(flag)); }},
    {starting, KNOWN(IBlackmagicRawConfiguration, GetPipeline, L""), extra, declarations, kUnknownOperation,
     RUN { HELD; Given<&IBlackmagicRawConfiguration::GetPipeline, 0> code{};
         void *context = nullptr, *queue = nullptr;
         const HRESULT result = h.configuration->GetPipeline(&code, &context, &queue);
         return codeGiven(result, numberOf(code)); }},
    {starting, ASK(IBlackmagicRaw, IBlackmagicRawConfigurationEx), needed, declarations, kRefusedInterface,
     RUN { HELD; return askFor(*h.codec.Get(), h.configurationEx); }},
    {starting, KNOWN(IBlackmagicRawConfigurationEx, GetResourceManager, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.configurationEx->GetResourceManager(&h.resources);
         return objectGiven(result, h.resources.Get()); }},
    {starting, ASK(IBlackmagicRaw, IBlackmagicRawManualDecoderFlow1), needed, declarations, kRefusedInterface,
     RUN { HELD; return askFor(*h.codec.Get(), h.decoder); }},
    {starting, ASK(IBlackmagicRaw, IBlackmagicRawManualDecoderFlow2), extra, declarations, kRefusedInterface,
     RUN { HELD; return askFor(*h.codec.Get(), h.gpuDecoder); }},
    {starting, CALL(IBlackmagicRaw, SetCallback, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; return {h.codec->SetCallback(&m)}; }},

    {opening, CALL(IBlackmagicRawFactory, CreateClipGeometry, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.factory->CreateClipGeometry(&h.geometry);
         return objectGiven(result, h.geometry.Get()); }},
    {opening, CALL(IBlackmagicRawClipGeometry, SetOrientationMode, L"as the clip says"), needed, declarations,
     L"clips that were filmed upright would lie on their side",
     RUN { HELD; return {h.geometry->SetOrientationMode(blackmagicRawGeometryMetadata)}; }},
    {opening, CALL(IBlackmagicRawClipGeometry, SetVerticalFlip, L"bottom row first"), needed, declarations,
     L"pictures would stand on their heads",
     RUN { HELD; return {h.geometry->SetVerticalFlip(blackmagicRawGeometryFlipVertical)}; }},
    {opening, CALL(IBlackmagicRaw, OpenClipWithGeometry, L""), needed, clip, kBadClip,
     RUN { HELD;
         const BSTR path = SysAllocString(m.clipPath().c_str());
         const HRESULT result = h.codec->OpenClipWithGeometry(path, h.geometry.Get(), &h.clip);
         SysFreeString(path);
         return objectGiven(result, h.clip.Get()); }},
    {opening, CALL(IBlackmagicRawClip, GetWidth, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.clip->GetWidth(&h.width);
         return numberWithin(result, h.width, 1, kLargestSide, L" pixels"); }},
    {opening, CALL(IBlackmagicRawClip, GetHeight, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.clip->GetHeight(&h.height);
         return numberWithin(result, h.height, 1, kLargestSide, L" pixels"); }},
    {opening, CALL(IBlackmagicRawClip, GetFrameRate, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; float rate = 0;
         Outcome outcome{h.clip->GetFrameRate(&rate)};
         outcome.value = std::isfinite(rate) ? decimal(double{rate}, 3) + L" per second" : L"no number";
         if (!(rate > 0.0f && rate < 100'000.0f))
             outcome.doubt = L"it must be above 0 and below 100000";
         return outcome; }},
    {opening, CALL(IBlackmagicRawClip, GetFrameCount, L""), needed, clip, kUnknownOperation,
     RUN { HELD; uint64_t count = 0;
         const HRESULT result = h.clip->GetFrameCount(&count);
         return numberWithin(result, count, 1, uint64_t{1} << 32, L""); }},
    {opening, ASK(IBlackmagicRawClip, IBlackmagicRawClipResolutions), needed, declarations, kRefusedInterface,
     RUN { HELD; return askFor(*h.clip.Get(), h.resolutions); }},
    {opening, KNOWN(IBlackmagicRawClipResolutions, GetResolutionCount, L""), needed, declarations, kUnknownOperation,
     countResolutions},
    {opening, KNOWN(IBlackmagicRawClipResolutions, GetResolution, L"each"), needed, declarations, kUnknownOperation,
     readResolutions},
    {opening, KNOWN(IBlackmagicRawClipResolutions, GetClosestScaleForResolution, L"each"), needed, declarations,
     kUnknownOperation, readScales},
    {opening, KNOWN(IBlackmagicRawClipResolutions, GetClosestResolutionForScale, L"each"), needed, declarations,
     kUnknownOperation, checkScales},
    {opening, ASK(IBlackmagicRawClip, IBlackmagicRawClipEx), needed, declarations, kRefusedInterface,
     RUN { HELD; return askFor(*h.clip.Get(), h.clipEx); }},
    {opening, CALL(IBlackmagicRawClip, CloneClipProcessingAttributes, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.clip->CloneClipProcessingAttributes(&h.attributes);
         return objectGiven(result, h.attributes.Get()); }},
    {opening, CALL(IBlackmagicRawClipProcessingAttributes, GetPost3DLUT, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.attributes->GetPost3DLUT(&h.lut);
         return h.lut ? objectGiven(result, h.lut.Get()) : Outcome{result, L"the clip has none"}; }},

    {opening, KNOWN(IBlackmagicRawClipEx, GetBitStreamSizeBytes, L"frame 0"), needed, clip, kBadFrame,
     RUN { HELD; uint32_t bytes = 0;
         const HRESULT result = h.clipEx->GetBitStreamSizeBytes(0, &bytes);
         return bufferSize(result, bytes, 1, h.bitStreamBytes); }},
    {opening, CALL(IBlackmagicRawResourceManager, CreateResource, L"for the frame's bytes"), needed, declarations,
     kUnknownOperation,
     RUN { HELD; return createHostBuffer(m, h.bitStreamBytes, h.bitStream); }},
    {opening, KNOWN(IBlackmagicRawClipEx, CreateJobReadFrame, L""), needed, declarations, kBadFrame,
     RUN { HELD; const HRESULT result = h.clipEx->CreateJobReadFrame(0, h.bitStream, h.bitStreamBytes, &h.job);
         return objectGiven(result, h.job.Get()); }},
    {opening, CALL(IBlackmagicRawJob, SetUserData, L"the read job"), needed, declarations, kUnknownOperation, labelJob},
    {opening, CALL(IBlackmagicRawJob, Submit, L"the read job"), needed, declarations, kBadFrame, submitJob},
    {opening, CALL(IBlackmagicRaw, FlushJobs, L"waits for all jobs"), needed, declarations, kBadFrame, flush},

    {readComplete, CALL(IBlackmagicRawCallback, ReadComplete, L"called by the library"), needed, clip, kBadFrame,
     RUN { HELD; Outcome outcome = completion(m);
         if (SUCCEEDED(outcome.result) && outcome.doubt.empty() && h.frame == nullptr)
             outcome.doubt = L"the read succeeded, but no frame was given";
         return outcome; }},
    {readComplete, CALL(IBlackmagicRawJob, GetUserData, L"the read job"), needed, declarations, kUnknownOperation,
     readLabel},
    {readComplete, CALL(IBlackmagicRawFrame, SetResourceFormat, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; return {h.frame->SetResourceFormat(blackmagicRawResourceFormatBGRAU8)}; }},
    {readComplete, CALL(IBlackmagicRawFrame, SetResolutionScale, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; return {h.frame->SetResolutionScale(h.chosen.scale), sizeText(h.chosen.width, h.chosen.height)}; }},
    {readComplete, KNOWN(IBlackmagicRawManualDecoderFlow1, GetFrameStateSizeBytes, L""), needed, declarations,
     kUnknownOperation,
     RUN { HELD; uint32_t bytes = 0;
         const HRESULT result = h.decoder->GetFrameStateSizeBytes(&bytes);
         return bufferSize(result, bytes, 1, h.frameStateBytes); }},
    {readComplete, CALL(IBlackmagicRawResourceManager, CreateResource, L"for the frame state"), needed, declarations,
     kUnknownOperation,
     RUN { HELD; return createHostBuffer(m, h.frameStateBytes, h.frameState); }},
    {readComplete, KNOWN(IBlackmagicRawManualDecoderFlow1, PopulateFrameStateBuffer, L""), needed, declarations, kBadFrame,
     RUN { HELD; return {h.decoder->PopulateFrameStateBuffer(h.frame, nullptr, nullptr, h.frameState,
                                                             h.frameStateBytes)}; }},
    {readComplete, KNOWN(IBlackmagicRawManualDecoderFlow1, GetDecodedSizeBytes, L""), needed, declarations, kBadFrame,
     RUN { HELD; uint32_t bytes = 0;
         const HRESULT result = h.decoder->GetDecodedSizeBytes(h.frameState, &bytes);
         return bufferSize(result, bytes, 1, h.decodedBytes); }},
    {readComplete, CALL(IBlackmagicRawResourceManager, CreateResource, L"for the decoded frame"), needed, declarations,
     kUnknownOperation,
     RUN { HELD; return createHostBuffer(m, h.decodedBytes, h.decoded); }},
    {readComplete, KNOWN(IBlackmagicRawManualDecoderFlow1, CreateJobDecode, L""), needed, declarations, kBadFrame,
     RUN { HELD; const HRESULT result = h.decoder->CreateJobDecode(h.frameState, h.bitStream, h.decoded, &h.job);
         return objectGiven(result, h.job.Get()); }},
    {readComplete, CALL(IBlackmagicRawJob, SetUserData, L"the decode job"), needed, declarations, kUnknownOperation, labelJob},
    {readComplete, CALL(IBlackmagicRawJob, Submit, L"the decode job"), needed, declarations, kBadFrame, submitJob},

    {decodeComplete, CALL(IBlackmagicRawCallback, DecodeComplete, L"called by the library"), needed, clip, kBadFrame,
     RUN { return completion(m); }},
    {decodeComplete, CALL(IBlackmagicRawJob, GetUserData, L"the decode job"), needed, declarations, kUnknownOperation,
     readLabel},
    {decodeComplete, KNOWN(IBlackmagicRawManualDecoderFlow1, GetProcessedSizeBytes, L""), needed, declarations, kBadFrame,
     RUN { HELD; uint32_t bytes = 0;
         const HRESULT result = h.decoder->GetProcessedSizeBytes(h.frameState, &bytes);
         Outcome outcome = bufferSize(result, bytes, 1, bytes);
         if (SUCCEEDED(result) && outcome.doubt.empty() && bytes < pictureBytes(h))
             outcome.doubt = L"the picture has " + std::to_wstring(pictureBytes(h)) + L" bytes";
         else if (SUCCEEDED(result) && outcome.doubt.empty() && !h.picture.reset(bytes))
             outcome.result = E_OUTOFMEMORY;
         return outcome; }},
    {decodeComplete, KNOWN(IBlackmagicRawManualDecoderFlow1, CreateJobProcess, L""), needed, declarations, kBadFrame,
     RUN { HELD;
         const HRESULT result = h.decoder->CreateJobProcess(h.frameState, h.decoded, h.picture.data(), nullptr, &h.job);
         return objectGiven(result, h.job.Get()); }},
    {decodeComplete, CALL(IBlackmagicRawJob, SetUserData, L"the process job"), needed, declarations, kUnknownOperation,
     labelJob},
    {decodeComplete, CALL(IBlackmagicRawJob, Submit, L"the process job"), needed, declarations, kBadFrame, submitJob},

    {processComplete, CALL(IBlackmagicRawCallback, ProcessComplete, L"called by the library"), needed, clip, kBadFrame,
     RUN { HELD; Outcome outcome = completion(m);
         if (SUCCEEDED(outcome.result) && outcome.doubt.empty() && h.image == nullptr)
             outcome.doubt = L"the processing succeeded, but no picture was given";
         return outcome; }},
    {processComplete, CALL(IBlackmagicRawJob, GetUserData, L"the process job"), needed, declarations, kUnknownOperation,
     readLabel},
    {processComplete, CALL(IBlackmagicRawProcessedImage, GetResourceType, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; Given<&IBlackmagicRawProcessedImage::GetResourceType, 0> code{};
         const HRESULT result = h.image->GetResourceType(&code);
         Outcome outcome = codeGiven(result, numberOf(code));
         if (code != blackmagicRawResourceTypeBufferCPU)
             outcome.doubt = L"the picture was asked for in host memory";
         return outcome; }},
    {processComplete, CALL(IBlackmagicRawProcessedImage, GetResourceFormat, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; Given<&IBlackmagicRawProcessedImage::GetResourceFormat, 0> code{};
         const HRESULT result = h.image->GetResourceFormat(&code);
         Outcome outcome = codeGiven(result, numberOf(code));
         if (code != blackmagicRawResourceFormatBGRAU8)
             outcome.doubt = L"the picture was asked for in another format";
         return outcome; }},
    {processComplete, CALL(IBlackmagicRawProcessedImage, GetWidth, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.image->GetWidth(&h.imageWidth);
         return numberWithin(result, h.imageWidth, 1, kLargestSide, L" pixels"); }},
    {processComplete, CALL(IBlackmagicRawProcessedImage, GetHeight, L""), needed, declarations, kUnknownOperation,
     RUN { HELD; const HRESULT result = h.image->GetHeight(&h.imageHeight);
         Outcome outcome = numberWithin(result, h.imageHeight, 1, kLargestSide, L" pixels");
         const bool isWanted = h.imageWidth == h.chosen.width && h.imageHeight == h.chosen.height;
         const bool isTurned = h.imageWidth == h.chosen.height && h.imageHeight == h.chosen.width;
         if (SUCCEEDED(result) && outcome.doubt.empty() && !isWanted && !isTurned)
             outcome.doubt = sizeText(h.imageWidth, h.imageHeight) + L" in the place of " +
                             sizeText(h.chosen.width, h.chosen.height);
         return outcome; }},
    {processComplete, CALL(IBlackmagicRawProcessedImage, GetResourceSizeBytes, L""), needed, declarations,
     kUnknownOperation,
     RUN { HELD; uint32_t bytes = 0;
         const HRESULT result = h.image->GetResourceSizeBytes(&bytes);
         return numberWithin(result, bytes, pictureBytes(h), h.picture.size(), L" bytes"); }},

    {closing, L"", L"the picture", L"", nullptr, nullptr, needed, declarations, kBadFrame, judgePicture},
    {closing, L"", L"writing the picture", L"", nullptr, nullptr, extra, report, L"the folder cannot be written to",
     RUN { return m.picturePath().empty() ? Outcome{S_OK, L"not asked for"} : Outcome{m.savePicture(), m.picturePath()}; }},
    {closing, CALL(IBlackmagicRawResourceManager, ReleaseResource, L"the frame's bytes"), needed, report, kBadRelease,
     RUN { return releaseHostBuffer(m, m.holdings.bitStream); }},
    {closing, CALL(IBlackmagicRawResourceManager, ReleaseResource, L"the frame state"), needed, report, kBadRelease,
     RUN { return releaseHostBuffer(m, m.holdings.frameState); }},
    {closing, CALL(IBlackmagicRawResourceManager, ReleaseResource, L"the decoded frame"), needed, report, kBadRelease,
     RUN { return releaseHostBuffer(m, m.holdings.decoded); }},
    GIVE_BACK(IBlackmagicRawPost3DLUT, lut),
    GIVE_BACK(IBlackmagicRawClipProcessingAttributes, attributes),
    GIVE_BACK(IBlackmagicRawClipResolutions, resolutions),
    GIVE_BACK(IBlackmagicRawClipEx, clipEx),
    GIVE_BACK(IBlackmagicRawClip, clip),
    GIVE_BACK(IBlackmagicRawClipGeometry, geometry),
    GIVE_BACK(IBlackmagicRawManualDecoderFlow2, gpuDecoder),
    GIVE_BACK(IBlackmagicRawManualDecoderFlow1, decoder),
    GIVE_BACK(IBlackmagicRawResourceManager, resources),
    GIVE_BACK(IBlackmagicRawConfigurationEx, configurationEx),
    GIVE_BACK(IBlackmagicRawConfiguration, configuration),
    GIVE_BACK(IBlackmagicRaw, codec),
    GIVE_BACK(IBlackmagicRawPipelineDevice, device),
    GIVE_BACK(IBlackmagicRawPipelineDeviceIterator, devices),
    GIVE_BACK(IBlackmagicRawPipelineIterator, pipelines),
    GIVE_BACK(IBlackmagicRawFactory, factory),
    {closing, L"", L"FreeLibrary", L"", nullptr, nullptr, needed, report, kBadRelease,
     RUN { return {FreeLibrary(std::exchange(m.holdings.module, nullptr)) ? S_OK : lastError()}; }},
};
// clang-format on

} // namespace

std::span<const Stage> stages() {
    return kStages;
}

} // namespace probe
