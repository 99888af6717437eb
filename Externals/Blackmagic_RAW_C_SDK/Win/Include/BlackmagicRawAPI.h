// The decoder library's interfaces, as far as this product uses them.
//
// The layout below is a contract: any decoder library compiled against this header works with the handler
// unchanged. README.md beside this file lists every interface with each slot and identifier, and says which
// are given and which are of our choosing.
//
// Conventions: every operation returns an HRESULT (negative on failure) unless stated; an interface handed
// out through a `**` argument carries one reference that the caller releases; BSTRs handed out are freed by
// the caller; sizes are bytes, picture sizes are pixels. Flags are BOOL: wide enough for a library that
// writes one byte and for one that writes four, as long as they start at 0.
#pragma once

#include <cstdint>

#include <windows.h>

#include <oaidl.h>
#include <unknwn.h>

/// A four-character code as the library's enumerations use it: the characters, most significant byte first.
constexpr uint32_t fourCharacterCode(const char (&text)[5]) {
    uint32_t code = 0;
    for (int i = 0; i < 4; ++i)
        code = code << 8 | static_cast<unsigned char>(text[i]);
    return code;
}

using BlackmagicRawPipeline = uint32_t;
inline constexpr BlackmagicRawPipeline blackmagicRawPipelineCPU = fourCharacterCode("cpub");
inline constexpr BlackmagicRawPipeline blackmagicRawPipelineCUDA = fourCharacterCode("cuda");
inline constexpr BlackmagicRawPipeline blackmagicRawPipelineMetal = fourCharacterCode("metl");
inline constexpr BlackmagicRawPipeline blackmagicRawPipelineOpenCL = fourCharacterCode("opcl");

using BlackmagicRawInstructionSet = uint32_t;
inline constexpr BlackmagicRawInstructionSet blackmagicRawInstructionSetSSE41 = fourCharacterCode("se41");
inline constexpr BlackmagicRawInstructionSet blackmagicRawInstructionSetAVX = fourCharacterCode("avx_");
inline constexpr BlackmagicRawInstructionSet blackmagicRawInstructionSetAVX2 = fourCharacterCode("avx2");

using BlackmagicRawInterop = uint32_t;
inline constexpr BlackmagicRawInterop blackmagicRawInteropNone = fourCharacterCode("none");
inline constexpr BlackmagicRawInterop blackmagicRawInteropOpenGL = fourCharacterCode("opgl");

using BlackmagicRawResourceType = uint32_t;
inline constexpr BlackmagicRawResourceType blackmagicRawResourceTypeBufferCPU = fourCharacterCode("cpub");
inline constexpr BlackmagicRawResourceType blackmagicRawResourceTypeBufferCUDA = fourCharacterCode("cudb");
inline constexpr BlackmagicRawResourceType blackmagicRawResourceTypeBufferMetal = fourCharacterCode("metb");
inline constexpr BlackmagicRawResourceType blackmagicRawResourceTypeBufferOpenCL = fourCharacterCode("oclb");

using BlackmagicRawResourceUsage = uint32_t;
inline constexpr BlackmagicRawResourceUsage blackmagicRawResourceUsageReadCPUWriteCPU = fourCharacterCode("rcwc");
inline constexpr BlackmagicRawResourceUsage blackmagicRawResourceUsageReadGPUWriteCPU = fourCharacterCode("rgwc");
inline constexpr BlackmagicRawResourceUsage blackmagicRawResourceUsageReadGPUWriteGPU = fourCharacterCode("rgwg");

/// Pixel layouts of a processed image: the channels in memory order, unsigned 8 or 16 bit or 32-bit float.
using BlackmagicRawResourceFormat = uint32_t;
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBAU8 = fourCharacterCode("rgba");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatBGRAU8 = fourCharacterCode("bgra");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBAU16 = fourCharacterCode("16al");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatBGRAU16 = fourCharacterCode("16la");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBU16 = fourCharacterCode("16il");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBU16Planar = fourCharacterCode("16pl");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBF32 = fourCharacterCode("f32s");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBF32Planar = fourCharacterCode("f32p");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatBGRAF32 = fourCharacterCode("f32a");

using BlackmagicRawResolutionScale = uint32_t;
inline constexpr BlackmagicRawResolutionScale blackmagicRawResolutionScaleFull = fourCharacterCode("full");
inline constexpr BlackmagicRawResolutionScale blackmagicRawResolutionScaleHalf = fourCharacterCode("half");
inline constexpr BlackmagicRawResolutionScale blackmagicRawResolutionScaleQuarter = fourCharacterCode("qrtr");
inline constexpr BlackmagicRawResolutionScale blackmagicRawResolutionScaleEighth = fourCharacterCode("eith");

/// What a clip-geometry setter takes: off, as the clip's metadata says, or mirrored about an axis.
using BlackmagicRawGeometryMode = uint32_t;
inline constexpr BlackmagicRawGeometryMode blackmagicRawGeometryDisabled = fourCharacterCode("dsbl");
inline constexpr BlackmagicRawGeometryMode blackmagicRawGeometryMetadata = fourCharacterCode("meta");
inline constexpr BlackmagicRawGeometryMode blackmagicRawGeometryFlipHorizontal = fourCharacterCode("flpx");
inline constexpr BlackmagicRawGeometryMode blackmagicRawGeometryFlipVertical = fourCharacterCode("flpy");

using BlackmagicRawClipProcessingAttribute = uint32_t;
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipColorScienceGen = fourCharacterCode("csgn");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipGamut = fourCharacterCode("gamt");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipGamutCompression = fourCharacterCode("gace");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipGamma = fourCharacterCode("gama");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveContrast = fourCharacterCode("tcon");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveSaturation = fourCharacterCode("tsat");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveMidpoint = fourCharacterCode("tmid");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveHighlights = fourCharacterCode("thih");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveShadows = fourCharacterCode("tsha");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveWhiteLevel = fourCharacterCode("twit");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveBlackLevel = fourCharacterCode("tblk");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveVideoBlackLevel = fourCharacterCode("tvbl");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipHighlightRecovery = fourCharacterCode("hlry");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipLUTMode = fourCharacterCode("lutm");

using BlackmagicRawFrameProcessingAttribute = uint32_t;
inline constexpr BlackmagicRawFrameProcessingAttribute blackmagicRawFrameISO = fourCharacterCode("fiso");
inline constexpr BlackmagicRawFrameProcessingAttribute blackmagicRawFrameWhiteBalanceKelvin = fourCharacterCode("wbkv");
inline constexpr BlackmagicRawFrameProcessingAttribute blackmagicRawFrameWhiteBalanceTint = fourCharacterCode("wbtn");
inline constexpr BlackmagicRawFrameProcessingAttribute blackmagicRawFrameExposure = fourCharacterCode("expo");

struct IBlackmagicRaw;
struct IBlackmagicRawClip;
struct IBlackmagicRawClipGeometry;
struct IBlackmagicRawFrame;
struct IBlackmagicRawJob;
struct IBlackmagicRawPipelineDevice;
struct IBlackmagicRawPipelineDeviceIterator;
struct IBlackmagicRawPipelineIterator;
struct IBlackmagicRawPost3DLUT;
struct IBlackmagicRawProcessedImage;
struct IBlackmagicRawResourceManager;

/// Operations that stand in a slot before one that is used, and are never called by the handler. A decoder
/// library implements them as it likes; E_NOTIMPL will do.
#define BLACKMAGIC_RAW_UNUSED(name) virtual HRESULT STDMETHODCALLTYPE name() = 0

/// A unit of asynchronous work. The submitter's reference may be released as soon as Submit has returned.
struct IBlackmagicRawJob : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Submit() = 0;
    BLACKMAGIC_RAW_UNUSED(Abort);
    virtual HRESULT STDMETHODCALLTYPE SetUserData(void* userData) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetUserData(void** userData) = 0;
};

/// Clip-wide processing settings. `array` may be null where only the element count and the flag are wanted.
struct IBlackmagicRawClipProcessingAttributes : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetClipAttribute);
    virtual HRESULT STDMETHODCALLTYPE SetClipAttribute(BlackmagicRawClipProcessingAttribute attribute,
                                                       VARIANT* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetClipAttributeRange(BlackmagicRawClipProcessingAttribute attribute,
                                                            VARIANT* minimum, VARIANT* maximum,
                                                            BOOL* isReadOnly) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetClipAttributeList(BlackmagicRawClipProcessingAttribute attribute,
                                                           VARIANT* array, uint32_t* elementCount,
                                                           BOOL* isReadOnly) = 0;
    BLACKMAGIC_RAW_UNUSED(GetISOList);
    /// Success with a null LUT: the clip has none.
    virtual HRESULT STDMETHODCALLTYPE GetPost3DLUT(IBlackmagicRawPost3DLUT** lut) = 0;
};

/// Per-frame processing settings.
struct IBlackmagicRawFrameProcessingAttributes : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetFrameAttribute);
    virtual HRESULT STDMETHODCALLTYPE SetFrameAttribute(BlackmagicRawFrameProcessingAttribute attribute,
                                                        VARIANT* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetFrameAttributeRange(BlackmagicRawFrameProcessingAttribute attribute,
                                                             VARIANT* minimum, VARIANT* maximum,
                                                             BOOL* isReadOnly) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetFrameAttributeList(BlackmagicRawFrameProcessingAttribute attribute,
                                                            VARIANT* array, uint32_t* elementCount,
                                                            BOOL* isReadOnly) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetISOList(uint32_t* array, uint32_t* elementCount,
                                                 BOOL* isReadOnly) = 0;
};

/// A clip's 3D LUT. Its resources belong to the LUT's clip and live as long as it.
struct IBlackmagicRawPost3DLUT : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetName);
    BLACKMAGIC_RAW_UNUSED(GetTitle);
    BLACKMAGIC_RAW_UNUSED(GetSize);
    virtual HRESULT STDMETHODCALLTYPE GetResourceGPU(void* context, void* commandQueue,
                                                     BlackmagicRawResourceType* type, void** resource) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResourceCPU(void** resource) = 0;
};

/// A frame that a read job delivered; valid during the callback and as long as a reference is held.
struct IBlackmagicRawFrame : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetFrameIndex);
    BLACKMAGIC_RAW_UNUSED(GetTimecode);
    BLACKMAGIC_RAW_UNUSED(GetMetadataIterator);
    BLACKMAGIC_RAW_UNUSED(GetMetadata);
    BLACKMAGIC_RAW_UNUSED(SetMetadata);
    virtual HRESULT STDMETHODCALLTYPE
    CloneFrameProcessingAttributes(IBlackmagicRawFrameProcessingAttributes** attributes) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetResolutionScale(BlackmagicRawResolutionScale scale) = 0;
    BLACKMAGIC_RAW_UNUSED(GetResolutionScale);
    virtual HRESULT STDMETHODCALLTYPE SetResourceFormat(BlackmagicRawResourceFormat format) = 0;
};

/// The result of a process job; valid during the callback.
struct IBlackmagicRawProcessedImage : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetWidth(uint32_t* width) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetHeight(uint32_t* height) = 0;
    BLACKMAGIC_RAW_UNUSED(GetResource);
    virtual HRESULT STDMETHODCALLTYPE GetResourceType(BlackmagicRawResourceType* type) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResourceFormat(BlackmagicRawResourceFormat* format) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResourceSizeBytes(uint32_t* sizeBytes) = 0;
};

/// Notifications, called by the library on its own worker threads.
struct IBlackmagicRawCallback : IUnknown {
    virtual void STDMETHODCALLTYPE ReadComplete(IBlackmagicRawJob* job, HRESULT result,
                                                IBlackmagicRawFrame* frame) = 0;
    virtual void STDMETHODCALLTYPE DecodeComplete(IBlackmagicRawJob* job, HRESULT result) = 0;
    virtual void STDMETHODCALLTYPE ProcessComplete(IBlackmagicRawJob* job, HRESULT result,
                                                   IBlackmagicRawProcessedImage* processedImage) = 0;
    /// `progress` runs from 0 to 1.
    virtual void STDMETHODCALLTYPE TrimProgress(IBlackmagicRawJob* job, float progress) = 0;
    virtual void STDMETHODCALLTYPE TrimComplete(IBlackmagicRawJob* job, HRESULT result) = 0;
    virtual void STDMETHODCALLTYPE SidecarMetadataParseWarning(IBlackmagicRawClip* clip, BSTR fileName,
                                                               uint32_t lineNumber, BSTR info) = 0;
    virtual void STDMETHODCALLTYPE SidecarMetadataParseError(IBlackmagicRawClip* clip, BSTR fileName,
                                                             uint32_t lineNumber, BSTR info) = 0;
    virtual void STDMETHODCALLTYPE PreparePipelineComplete(void* userData, HRESULT result) = 0;
};

struct IBlackmagicRawClip : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetWidth(uint32_t* width) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetHeight(uint32_t* height) = 0;
    /// Frames per second.
    virtual HRESULT STDMETHODCALLTYPE GetFrameRate(float* frameRate) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetFrameCount(uint64_t* frameCount) = 0;
    BLACKMAGIC_RAW_UNUSED(GetTimecodeForFrame);
    BLACKMAGIC_RAW_UNUSED(GetMetadataIterator);
    BLACKMAGIC_RAW_UNUSED(GetMetadata);
    BLACKMAGIC_RAW_UNUSED(SetMetadata);
    BLACKMAGIC_RAW_UNUSED(GetCameraType);
    virtual HRESULT STDMETHODCALLTYPE
    CloneClipProcessingAttributes(IBlackmagicRawClipProcessingAttributes** attributes) = 0;
};

/// Extended clip operations, for reading a frame into the caller's own buffer.
struct IBlackmagicRawClipEx : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetMaxBitStreamSizeBytes);
    virtual HRESULT STDMETHODCALLTYPE GetBitStreamSizeBytes(uint64_t frameIndex, uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateJobReadFrame(uint64_t frameIndex, void* bitStream,
                                                         uint32_t bitStreamSizeBytes,
                                                         IBlackmagicRawJob** job) = 0;
};

/// The picture sizes that a clip can be decoded at.
struct IBlackmagicRawClipResolutions : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetResolutionCount(uint32_t* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResolution(uint32_t index, uint32_t* width, uint32_t* height) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetClosestResolutionForScale(BlackmagicRawResolutionScale scale,
                                                                   uint32_t* width, uint32_t* height) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetClosestScaleForResolution(uint32_t width, uint32_t height,
                                                                   BlackmagicRawResolutionScale* scale) = 0;
};

/// How a clip's picture is turned when it is decoded. The orientation setter (slot 4) takes 'dsbl' or 'meta';
/// the vertical-flip setter (slot 8) takes 'dsbl' or 'flpy'.
struct IBlackmagicRawClipGeometry : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetOrientationMode);
    virtual HRESULT STDMETHODCALLTYPE SetOrientationMode(BlackmagicRawGeometryMode mode) = 0;
    BLACKMAGIC_RAW_UNUSED(GetHorizontalFlip);
    BLACKMAGIC_RAW_UNUSED(SetHorizontalFlip);
    BLACKMAGIC_RAW_UNUSED(GetVerticalFlip);
    virtual HRESULT STDMETHODCALLTYPE SetVerticalFlip(BlackmagicRawGeometryMode mode) = 0;
};

/// Creates, releases and copies the memory that jobs work on. `context` and `commandQueue` are those of the
/// GPU pipeline, null for host buffers.
struct IBlackmagicRawResourceManager : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE CreateResource(void* context, void* commandQueue, uint32_t sizeBytes,
                                                     BlackmagicRawResourceType type,
                                                     BlackmagicRawResourceUsage usage, void** resource) = 0;
    virtual HRESULT STDMETHODCALLTYPE ReleaseResource(void* context, void* commandQueue, void* resource,
                                                      BlackmagicRawResourceType type) = 0;
    virtual HRESULT STDMETHODCALLTYPE CopyResource(void* context, void* commandQueue, void* source,
                                                   BlackmagicRawResourceType sourceType, void* destination,
                                                   BlackmagicRawResourceType destinationType,
                                                   uint32_t sizeBytes, BOOL copyAsync) = 0;
};

/// Manual decoding on the CPU: the caller owns every buffer. All buffers are host memory.
struct IBlackmagicRawManualDecoderFlow1 : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetFrameStateSizeBytes(uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE PopulateFrameStateBuffer(
        IBlackmagicRawFrame* frame, IBlackmagicRawClipProcessingAttributes* clipAttributes,
        IBlackmagicRawFrameProcessingAttributes* frameAttributes, void* frameState,
        uint32_t frameStateSizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDecodedSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetProcessedSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    BLACKMAGIC_RAW_UNUSED(GetPost3DLUTSizeBytes);
    virtual HRESULT STDMETHODCALLTYPE CreateJobDecode(void* frameState, void* bitStream, void* decoded,
                                                      IBlackmagicRawJob** job) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateJobProcess(void* frameState, void* decoded, void* processed,
                                                       void* post3DLUT, IBlackmagicRawJob** job) = 0;
};

/// Manual decoding with processing on a GPU. Frame state, bit stream and the decode job's result are host
/// memory; what the process job takes and gives is device memory.
struct IBlackmagicRawManualDecoderFlow2 : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetFrameStateSizeBytes(uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE PopulateFrameStateBuffer(
        IBlackmagicRawFrame* frame, IBlackmagicRawClipProcessingAttributes* clipAttributes,
        IBlackmagicRawFrameProcessingAttributes* frameAttributes, void* frameState,
        uint32_t frameStateSizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDecodedSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetWorkingSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetProcessedSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    BLACKMAGIC_RAW_UNUSED(GetPost3DLUTSizeBytes);
    virtual HRESULT STDMETHODCALLTYPE CreateJobDecode(void* frameState, void* bitStream, void* decoded,
                                                      IBlackmagicRawJob** job) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateJobProcess(void* context, void* commandQueue, void* frameState,
                                                       void* decoded, void* working, void* processed,
                                                       void* post3DLUT, IBlackmagicRawJob** job) = 0;
};

/// A device that a pipeline runs on.
struct IBlackmagicRawPipelineDevice : IUnknown {
    BLACKMAGIC_RAW_UNUSED(SetBestInstructionSet);
    BLACKMAGIC_RAW_UNUSED(SetInstructionSet);
    virtual HRESULT STDMETHODCALLTYPE GetInstructionSet(BlackmagicRawInstructionSet* instructionSet) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetIndex(uint32_t* deviceIndex) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetName(BSTR* name) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetInterop(BlackmagicRawInterop* interop) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline, void** context,
                                                  void** commandQueue) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPipelineName(BSTR* pipelineName) = 0;
};

/// Stands on its first device when handed out; CreateDevice makes the one it stands on.
struct IBlackmagicRawPipelineDeviceIterator : IUnknown {
    BLACKMAGIC_RAW_UNUSED(Next);
    BLACKMAGIC_RAW_UNUSED(GetPipeline);
    BLACKMAGIC_RAW_UNUSED(GetInterop);
    virtual HRESULT STDMETHODCALLTYPE CreateDevice(IBlackmagicRawPipelineDevice** device) = 0;
};

/// Stands on its first pipeline when handed out; past the last one GetPipeline fails or gives 0.
struct IBlackmagicRawPipelineIterator : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Next() = 0;
    BLACKMAGIC_RAW_UNUSED(GetName);
    BLACKMAGIC_RAW_UNUSED(GetInterop);
    virtual HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline) = 0;
};

struct IBlackmagicRawConfiguration : IUnknown {
    BLACKMAGIC_RAW_UNUSED(SetPipeline);
    /// `context` and `commandQueue` may be null.
    virtual HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline, void** context,
                                                  void** commandQueue) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsPipelineSupported(BlackmagicRawPipeline pipeline,
                                                          BOOL* isSupported) = 0;
    BLACKMAGIC_RAW_UNUSED(SetCPUThreads);
    virtual HRESULT STDMETHODCALLTYPE GetCPUThreads(uint32_t* threadCount) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMaxCPUThreadCount(uint32_t* threadCount) = 0;
    BLACKMAGIC_RAW_UNUSED(SetWriteMetadataPerFrame);
    virtual HRESULT STDMETHODCALLTYPE GetWriteMetadataPerFrame(BOOL* writePerFrame) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetFromDevice(IBlackmagicRawPipelineDevice* device) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetVersion(BSTR* version) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetCameraSupportVersion(BSTR* version) = 0;
};

struct IBlackmagicRawConfigurationEx : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetResourceManager(IBlackmagicRawResourceManager** resourceManager) = 0;
};

/// The codec. Its QueryInterface also gives the configuration interfaces and the manual decoders.
struct IBlackmagicRaw : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE OpenClip(BSTR fileName, IBlackmagicRawClip** clip) = 0;
    virtual HRESULT STDMETHODCALLTYPE OpenClipWithGeometry(BSTR fileName,
                                                           IBlackmagicRawClipGeometry* geometry,
                                                           IBlackmagicRawClip** clip) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetCallback(IBlackmagicRawCallback* callback) = 0;
    BLACKMAGIC_RAW_UNUSED(PreparePipeline);
    BLACKMAGIC_RAW_UNUSED(PreparePipelineForDevice);
    /// Returns when every job, those that callbacks submit meanwhile included, has completed and its callback
    /// has returned.
    virtual HRESULT STDMETHODCALLTYPE FlushJobs() = 0;
};

struct IBlackmagicRawFactory : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE CreateCodec(IBlackmagicRaw** codec) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreatePipelineIterator(BlackmagicRawInterop interop,
                                                             IBlackmagicRawPipelineIterator** iterator) = 0;
    virtual HRESULT STDMETHODCALLTYPE
    CreatePipelineDeviceIterator(BlackmagicRawPipeline pipeline, BlackmagicRawInterop interop,
                                 IBlackmagicRawPipelineDeviceIterator** iterator) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateClipGeometry(IBlackmagicRawClipGeometry** geometry) = 0;
};

#undef BLACKMAGIC_RAW_UNUSED

/// The library's only entry point, looked up by name: a factory with one reference, or null.
using CreateBlackmagicRawFactoryInstanceFunction = IBlackmagicRawFactory*(STDMETHODCALLTYPE*)();

// The interfaces that are asked for by identifier.
__CRT_UUID_DECL(IBlackmagicRawManualDecoderFlow1, 0x278815A6, 0xA3C1, 0x47C7, 0xA0, 0xA6, 0x67, 0x54, 0xDE,
                0xAE, 0x5E, 0x7A)
__CRT_UUID_DECL(IBlackmagicRawManualDecoderFlow2, 0xDBEC4C39, 0xB4C2, 0x4A65, 0xAA, 0x8C, 0x2B, 0x3C, 0x7F,
                0x47, 0x77, 0xE3)
__CRT_UUID_DECL(IBlackmagicRawConfiguration, 0x267E9866, 0xFB40, 0x4BFB, 0x8B, 0xF8, 0x96, 0xEA, 0x3F, 0x7D,
                0xA3, 0x6E)
__CRT_UUID_DECL(IBlackmagicRawConfigurationEx, 0xACE9078F, 0xABA0, 0x4B26, 0xA9, 0x54, 0xED, 0xA1, 0x08, 0xDA,
                0xDA, 0x5A)
__CRT_UUID_DECL(IBlackmagicRawClipEx, 0x6D1F2A0C, 0x5B7E, 0x4E93, 0x9C, 0x41, 0x3F, 0x8A, 0x72, 0xD0, 0x15,
                0xE6)
__CRT_UUID_DECL(IBlackmagicRawClipResolutions, 0xE2B94C57, 0x08D3, 0x4A6F, 0x8E, 0x1B, 0xC5, 0x70, 0x3D, 0x9A,
                0x64, 0x2F)
