// The decoder library's interfaces, as far as this product uses them.
//
// The layout below is a contract: any decoder library compiled against this header works with the handler
// unchanged. The product itself knows operations by their names alone; README.md beside this file says how it
// is built with the maker's declarations instead of these, and what in these is certain.
//
// Conventions: every operation returns an HRESULT unless stated. Any HRESULT that is not negative is a
// success, except where "S_OK alone" stands: there every other code counts as a failure. A failed operation
// leaves its outputs as they were, or 0 or null; so does one that succeeds without having anything to give.
// An interface handed out through a `**` argument carries one reference that the caller releases; BSTRs
// handed out are freed by the caller; sizes are bytes, picture sizes are pixels. Flags are BOOL: wide enough
// for a library that writes one byte and for one that writes four, as long as they start at 0. QueryInterface
// gives S_OK alone.
//
// Threads: an object may be called on any thread, but the handler calls none from two threads at once, other
// than jobs and the manual decoders. Completions come on the library's own threads.
//
// Lives: the handler releases clips, decoders, resource manager and configuration, then the codec, and
// unloads the library after that. Anything of the library may hold a reference to the codec, and so keep it
// alive for longer. Whoever's release is the last one, on whatever thread, ends it; that release may wait for
// the library's threads or not. Once FlushJobs has succeeded and the codec is gone, no thread may be inside
// the library any more, unless it keeps the library loaded itself.
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
inline constexpr BlackmagicRawResourceUsage blackmagicRawResourceUsageReadCPUWriteCPU =
    fourCharacterCode("rcwc");
inline constexpr BlackmagicRawResourceUsage blackmagicRawResourceUsageReadGPUWriteCPU =
    fourCharacterCode("rgwc");
inline constexpr BlackmagicRawResourceUsage blackmagicRawResourceUsageReadGPUWriteGPU =
    fourCharacterCode("rgwg");

/// Pixel layouts of a processed image: the channels in memory order, unsigned 8 or 16 bit or 32-bit float.
using BlackmagicRawResourceFormat = uint32_t;
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBAU8 = fourCharacterCode("rgba");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatBGRAU8 = fourCharacterCode("bgra");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBAU16 = fourCharacterCode("16al");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatBGRAU16 = fourCharacterCode("16la");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBU16 = fourCharacterCode("16il");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBU16Planar =
    fourCharacterCode("16pl");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBF32 = fourCharacterCode("f32s");
inline constexpr BlackmagicRawResourceFormat blackmagicRawResourceFormatRGBF32Planar =
    fourCharacterCode("f32p");
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
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipColorScienceGen =
    fourCharacterCode("csgn");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipGamut = fourCharacterCode("gamt");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipGamutCompression =
    fourCharacterCode("gace");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipGamma = fourCharacterCode("gama");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveContrast =
    fourCharacterCode("tcon");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveSaturation =
    fourCharacterCode("tsat");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveMidpoint =
    fourCharacterCode("tmid");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveHighlights =
    fourCharacterCode("thih");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveShadows =
    fourCharacterCode("tsha");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveWhiteLevel =
    fourCharacterCode("twit");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveBlackLevel =
    fourCharacterCode("tblk");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipToneCurveVideoBlackLevel =
    fourCharacterCode("tvbl");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipHighlightRecovery =
    fourCharacterCode("hlry");
inline constexpr BlackmagicRawClipProcessingAttribute blackmagicRawClipLUTMode = fourCharacterCode("lutm");

using BlackmagicRawFrameProcessingAttribute = uint32_t;
inline constexpr BlackmagicRawFrameProcessingAttribute blackmagicRawFrameISO = fourCharacterCode("fiso");
inline constexpr BlackmagicRawFrameProcessingAttribute blackmagicRawFrameWhiteBalanceKelvin =
    fourCharacterCode("wbkv");
inline constexpr BlackmagicRawFrameProcessingAttribute blackmagicRawFrameWhiteBalanceTint =
    fourCharacterCode("wbtn");
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

/// Operations that stand in a slot before one that is used, and are never called by the handler. Their
/// arguments are not known here.
#define BLACKMAGIC_RAW_UNUSED(name)                                                                          \
    virtual HRESULT STDMETHODCALLTYPE name() {                                                               \
        return E_NOTIMPL;                                                                                    \
    }

/// A unit of asynchronous work. The submitter's reference may be released as soon as Submit has returned; the
/// library keeps the job until its completion has returned. The buffers that the caller gave stay until then.
struct IBlackmagicRawJob : IUnknown {
    /// Starts the work, once. The completion may come, and even return, before Submit has returned: the
    /// submitter holds no lock that it needs. After a failure there is no completion.
    virtual HRESULT STDMETHODCALLTYPE Submit() = 0;
    BLACKMAGIC_RAW_UNUSED(Abort)
    virtual HRESULT STDMETHODCALLTYPE SetUserData(void* userData) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetUserData(void** userData) = 0;
};

/// Clip-wide processing settings. `array` may be null where only the element count and the flag are wanted.
struct IBlackmagicRawClipProcessingAttributes : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetClipAttribute)
    /// S_OK alone, in these three: what is not set is asked about, by the range first.
    virtual HRESULT STDMETHODCALLTYPE SetClipAttribute(BlackmagicRawClipProcessingAttribute attribute,
                                                       VARIANT* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetClipAttributeRange(BlackmagicRawClipProcessingAttribute attribute,
                                                            VARIANT* minimum, VARIANT* maximum,
                                                            BOOL* isReadOnly) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetClipAttributeList(BlackmagicRawClipProcessingAttribute attribute,
                                                           VARIANT* array, uint32_t* elementCount,
                                                           BOOL* isReadOnly) = 0;
    BLACKMAGIC_RAW_UNUSED(GetISOList)
    /// Success with a null LUT: the clip has none.
    virtual HRESULT STDMETHODCALLTYPE GetPost3DLUT(IBlackmagicRawPost3DLUT** lut) = 0;
};

/// Per-frame processing settings.
struct IBlackmagicRawFrameProcessingAttributes : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetFrameAttribute)
    /// S_OK alone, in these four.
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

/// A clip's 3D LUT. Its resources are its own, and live as long as it or its clip.
struct IBlackmagicRawPost3DLUT : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetName)
    BLACKMAGIC_RAW_UNUSED(GetTitle)
    BLACKMAGIC_RAW_UNUSED(GetSize)
    virtual HRESULT STDMETHODCALLTYPE GetResourceGPU(void* context, void* commandQueue,
                                                     BlackmagicRawResourceType* type, void** resource) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResourceCPU(void** resource) = 0;
};

/// A frame that a read job delivered; valid during the callback and as long as a reference is held. Scale and
/// format are set before the frame state is populated, which takes them over.
struct IBlackmagicRawFrame : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetFrameIndex)
    BLACKMAGIC_RAW_UNUSED(GetTimecode)
    BLACKMAGIC_RAW_UNUSED(GetMetadataIterator)
    BLACKMAGIC_RAW_UNUSED(GetMetadata)
    BLACKMAGIC_RAW_UNUSED(SetMetadata)
    virtual HRESULT STDMETHODCALLTYPE
    CloneFrameProcessingAttributes(IBlackmagicRawFrameProcessingAttributes** attributes) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetResolutionScale(BlackmagicRawResolutionScale scale) = 0;
    BLACKMAGIC_RAW_UNUSED(GetResolutionScale)
    /// S_OK alone: after another success the resolution scale is not set.
    virtual HRESULT STDMETHODCALLTYPE SetResourceFormat(BlackmagicRawResourceFormat format) = 0;
};

/// The result of a process job; valid during the callback.
///
/// The image begins at the start of the buffer that the job was given. Rows follow each other without
/// padding, each as wide as the image times the format's bytes per pixel; the caller asks the codec's clips
/// for bottom row first. What the buffer holds beyond the last row is ignored. Alpha is opaque, or what the
/// picture has: a thumbnail's is blended by it.
struct IBlackmagicRawProcessedImage : IUnknown {
    /// The image's own sides, after turning and scaling.
    virtual HRESULT STDMETHODCALLTYPE GetWidth(uint32_t* width) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetHeight(uint32_t* height) = 0;
    BLACKMAGIC_RAW_UNUSED(GetResource)
    virtual HRESULT STDMETHODCALLTYPE GetResourceType(BlackmagicRawResourceType* type) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResourceFormat(BlackmagicRawResourceFormat* format) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResourceSizeBytes(uint32_t* sizeBytes) = 0;
};

/// Notifications, called by the library on threads of its own: on one or on many, at once or late, for
/// several jobs at the same time. Each submitted job is completed exactly once, with the job's submitter free
/// to submit others from within. The library may count its callback, or not: the handler keeps it until the
/// codec is gone.
struct IBlackmagicRawCallback : IUnknown {
    /// `result`: S_OK alone; after another success the frame's format and scale are not set. After a failure
    /// `frame` is null or a frame; it is not used.
    virtual void STDMETHODCALLTYPE ReadComplete(IBlackmagicRawJob* job, HRESULT result,
                                                IBlackmagicRawFrame* frame) = 0;
    virtual void STDMETHODCALLTYPE DecodeComplete(IBlackmagicRawJob* job, HRESULT result) = 0;
    /// After a failure `processedImage` is null or an image; it is not used.
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

/// An opened clip. The file may be closed once the clip and its jobs are gone.
struct IBlackmagicRawClip : IUnknown {
    /// The full picture's sides: as it is stored or as it is shown, where the two differ.
    virtual HRESULT STDMETHODCALLTYPE GetWidth(uint32_t* width) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetHeight(uint32_t* height) = 0;
    /// Frames per second.
    virtual HRESULT STDMETHODCALLTYPE GetFrameRate(float* frameRate) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetFrameCount(uint64_t* frameCount) = 0;
    BLACKMAGIC_RAW_UNUSED(GetTimecodeForFrame)
    BLACKMAGIC_RAW_UNUSED(GetMetadataIterator)
    BLACKMAGIC_RAW_UNUSED(GetMetadata)
    BLACKMAGIC_RAW_UNUSED(SetMetadata)
    BLACKMAGIC_RAW_UNUSED(GetCameraType)
    virtual HRESULT STDMETHODCALLTYPE
    CloneClipProcessingAttributes(IBlackmagicRawClipProcessingAttributes** attributes) = 0;
};

/// Extended clip operations, for reading a frame into the caller's own buffer.
struct IBlackmagicRawClipEx : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetMaxBitStreamSizeBytes)
    /// Also asked for frame 0 to see whether the clip still works.
    virtual HRESULT STDMETHODCALLTYPE GetBitStreamSizeBytes(uint64_t frameIndex, uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateJobReadFrame(uint64_t frameIndex, void* bitStream,
                                                         uint32_t bitStreamSizeBytes,
                                                         IBlackmagicRawJob** job) = 0;
};

/// The picture sizes that a clip can be decoded at, in any order; one may come twice, and one is the full
/// size. Each leads to a scale that leads back to just this size. Sides are those of the picture as it is
/// stored or as it is shown, in all of these operations the same; the processed image is turned all the same.
struct IBlackmagicRawClipResolutions : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetResolutionCount(uint32_t* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetResolution(uint32_t index, uint32_t* width, uint32_t* height) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetClosestResolutionForScale(BlackmagicRawResolutionScale scale,
                                                                   uint32_t* width, uint32_t* height) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetClosestScaleForResolution(uint32_t width, uint32_t height,
                                                                   BlackmagicRawResolutionScale* scale) = 0;
};

/// How a clip's picture is turned when it is decoded: made upright first, then mirrored. The orientation
/// setter takes 'dsbl' or 'meta'; the vertical-flip setter takes 'dsbl' or 'flpy'. Their results are not
/// looked at. A clip takes over what is set when it is opened; the object may be used for another one later.
struct IBlackmagicRawClipGeometry : IUnknown {
    BLACKMAGIC_RAW_UNUSED(GetOrientationMode)
    virtual HRESULT STDMETHODCALLTYPE SetOrientationMode(BlackmagicRawGeometryMode mode) = 0;
    BLACKMAGIC_RAW_UNUSED(GetHorizontalFlip)
    BLACKMAGIC_RAW_UNUSED(SetHorizontalFlip)
    BLACKMAGIC_RAW_UNUSED(GetVerticalFlip)
    virtual HRESULT STDMETHODCALLTYPE SetVerticalFlip(BlackmagicRawGeometryMode mode) = 0;
};

/// Creates, releases and copies the memory that jobs work on. `context` and `commandQueue` are those of the
/// GPU pipeline, null for host buffers. It is kept until the last resource is given back, which may be after
/// the codec was released.
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

/// Manual decoding on the CPU: the caller owns every buffer. All buffers are host memory. Most come from the
/// resource manager; `processed` may be the caller's own memory (a bitmap's pixels, say), aligned to 4 bytes
/// and of at least the size that was asked for.
///
/// The size queries may be answered with more than the picture needs, never with 0. The frame state's is
/// valid at any time, the others' for a populated frame state, and from then on, before the frame's jobs as
/// after. A frame state is the library's to fill and to read; a job may read it until its completion.
///
/// Nothing has to be bound first: a codec that no device was set on decodes on the CPU.
struct IBlackmagicRawManualDecoderFlow1 : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetFrameStateSizeBytes(uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE PopulateFrameStateBuffer(
        IBlackmagicRawFrame* frame, IBlackmagicRawClipProcessingAttributes* clipAttributes,
        IBlackmagicRawFrameProcessingAttributes* frameAttributes, void* frameState,
        uint32_t frameStateSizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDecodedSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetProcessedSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    BLACKMAGIC_RAW_UNUSED(GetPost3DLUTSizeBytes)
    virtual HRESULT STDMETHODCALLTYPE CreateJobDecode(void* frameState, void* bitStream, void* decoded,
                                                      IBlackmagicRawJob** job) = 0;
    /// `post3DLUT` may be null.
    virtual HRESULT STDMETHODCALLTYPE CreateJobProcess(void* frameState, void* decoded, void* processed,
                                                       void* post3DLUT, IBlackmagicRawJob** job) = 0;
};

/// Manual decoding with processing on a GPU, once its device was set on the codec. Frame state, bit stream
/// and the decode job's result are host memory; what the process job takes and gives is device memory.
struct IBlackmagicRawManualDecoderFlow2 : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetFrameStateSizeBytes(uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE PopulateFrameStateBuffer(
        IBlackmagicRawFrame* frame, IBlackmagicRawClipProcessingAttributes* clipAttributes,
        IBlackmagicRawFrameProcessingAttributes* frameAttributes, void* frameState,
        uint32_t frameStateSizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDecodedSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetWorkingSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetProcessedSizeBytes(void* frameState, uint32_t* sizeBytes) = 0;
    BLACKMAGIC_RAW_UNUSED(GetPost3DLUTSizeBytes)
    virtual HRESULT STDMETHODCALLTYPE CreateJobDecode(void* frameState, void* bitStream, void* decoded,
                                                      IBlackmagicRawJob** job) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateJobProcess(void* context, void* commandQueue, void* frameState,
                                                       void* decoded, void* working, void* processed,
                                                       void* post3DLUT, IBlackmagicRawJob** job) = 0;
};

/// A device that a pipeline runs on.
struct IBlackmagicRawPipelineDevice : IUnknown {
    BLACKMAGIC_RAW_UNUSED(SetBestInstructionSet)
    BLACKMAGIC_RAW_UNUSED(SetInstructionSet)
    virtual HRESULT STDMETHODCALLTYPE GetInstructionSet(BlackmagicRawInstructionSet* instructionSet) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetIndex(uint32_t* deviceIndex) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetName(BSTR* name) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetInterop(BlackmagicRawInterop* interop) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline, void** context,
                                                  void** commandQueue) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPipelineName(BSTR* pipelineName) = 0;
};

/// Stands on its first device when handed out; CreateDevice (S_OK alone) makes the one it stands on.
struct IBlackmagicRawPipelineDeviceIterator : IUnknown {
    BLACKMAGIC_RAW_UNUSED(Next)
    BLACKMAGIC_RAW_UNUSED(GetPipeline)
    BLACKMAGIC_RAW_UNUSED(GetInterop)
    virtual HRESULT STDMETHODCALLTYPE CreateDevice(IBlackmagicRawPipelineDevice** device) = 0;
};

/// Stands on its first pipeline when handed out. Next gives S_OK when it stands on another one, any other
/// code at the end; past the end GetPipeline (S_OK alone) fails or gives 0.
struct IBlackmagicRawPipelineIterator : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Next() = 0;
    BLACKMAGIC_RAW_UNUSED(GetName)
    BLACKMAGIC_RAW_UNUSED(GetInterop)
    virtual HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline) = 0;
};

struct IBlackmagicRawConfiguration : IUnknown {
    BLACKMAGIC_RAW_UNUSED(SetPipeline)
    /// `context` and `commandQueue` may be null.
    virtual HRESULT STDMETHODCALLTYPE GetPipeline(BlackmagicRawPipeline* pipeline, void** context,
                                                  void** commandQueue) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsPipelineSupported(BlackmagicRawPipeline pipeline,
                                                          BOOL* isSupported) = 0;
    BLACKMAGIC_RAW_UNUSED(SetCPUThreads)
    virtual HRESULT STDMETHODCALLTYPE GetCPUThreads(uint32_t* threadCount) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetMaxCPUThreadCount(uint32_t* threadCount) = 0;
    BLACKMAGIC_RAW_UNUSED(SetWriteMetadataPerFrame)
    virtual HRESULT STDMETHODCALLTYPE GetWriteMetadataPerFrame(BOOL* writePerFrame) = 0;
    /// S_OK alone. Not called for a device of the CPU's.
    virtual HRESULT STDMETHODCALLTYPE SetFromDevice(IBlackmagicRawPipelineDevice* device) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetVersion(BSTR* version) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetCameraSupportVersion(BSTR* version) = 0;
};

struct IBlackmagicRawConfigurationEx : IUnknown {
    /// S_OK alone.
    virtual HRESULT STDMETHODCALLTYPE GetResourceManager(IBlackmagicRawResourceManager** resourceManager) = 0;
};

/// The codec. Its QueryInterface also gives the configuration interfaces and the manual decoders.
struct IBlackmagicRaw : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE OpenClip(BSTR fileName, IBlackmagicRawClip** clip) = 0;
    virtual HRESULT STDMETHODCALLTYPE OpenClipWithGeometry(BSTR fileName,
                                                           IBlackmagicRawClipGeometry* geometry,
                                                           IBlackmagicRawClip** clip) = 0;
    /// S_OK alone.
    virtual HRESULT STDMETHODCALLTYPE SetCallback(IBlackmagicRawCallback* callback) = 0;
    BLACKMAGIC_RAW_UNUSED(PreparePipeline)
    BLACKMAGIC_RAW_UNUSED(PreparePipelineForDevice)
    /// Returns when every job, those that callbacks submit meanwhile included, has completed and its callback
    /// has returned. After a failure jobs may still wait or run.
    virtual HRESULT STDMETHODCALLTYPE FlushJobs() = 0;
};

/// S_OK alone, but for the geometry.
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
__CRT_UUID_DECL(IBlackmagicRawCallback, 0xCD5D0F4B, 0x3395, 0x425D, 0x8F, 0x71, 0x5A, 0x28, 0x7E, 0x05, 0x5F,
                0x49)
