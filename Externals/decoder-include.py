#!/usr/bin/env python3
"""Reads somebody's declarations of the decoder library and writes them as this product uses them.

usage: decoder-include.py DIR OUTPUT [--compiler CXX] [--widl WIDL]

DIR holds a header, plain or as an IDL compiler writes it, or an IDL file. The product knows operations by their names;
which slot of an interface an operation stands in, which identifier an interface has and which value a constant is DIR
says. OUTPUT becomes a header in the form of our own BlackmagicRawAPI.h. What DIR lacks, or declares otherwise than the
product can use, is said in one line each, and then nothing is written and the exit status is 1.

The compiler itself is asked for slots, sizes and values: what it makes of DIR is what counts.
"""
import argparse
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

# What the product calls and implements. A leading ? marks what DIR may lack.
OPERATIONS = """
IBlackmagicRawJob
    Submit()
    SetUserData(void* userData)
    GetUserData(void** userData)
IBlackmagicRawClipProcessingAttributes
    SetClipAttribute(BlackmagicRawClipProcessingAttribute attribute, VARIANT* value)
    GetClipAttributeRange(BlackmagicRawClipProcessingAttribute attribute, VARIANT* minimum, VARIANT* maximum, BOOL* isReadOnly)
    GetClipAttributeList(BlackmagicRawClipProcessingAttribute attribute, VARIANT* array, uint32_t* elementCount, BOOL* isReadOnly)
    GetPost3DLUT(IBlackmagicRawPost3DLUT** lut)
IBlackmagicRawFrameProcessingAttributes
    SetFrameAttribute(BlackmagicRawFrameProcessingAttribute attribute, VARIANT* value)
    GetFrameAttributeRange(BlackmagicRawFrameProcessingAttribute attribute, VARIANT* minimum, VARIANT* maximum, BOOL* isReadOnly)
    GetFrameAttributeList(BlackmagicRawFrameProcessingAttribute attribute, VARIANT* array, uint32_t* elementCount, BOOL* isReadOnly)
    GetISOList(uint32_t* array, uint32_t* elementCount, BOOL* isReadOnly)
IBlackmagicRawPost3DLUT
    GetResourceGPU(void* context, void* commandQueue, BlackmagicRawResourceType* type, void** resource)
    GetResourceCPU(void** resource)
IBlackmagicRawFrame
    CloneFrameProcessingAttributes(IBlackmagicRawFrameProcessingAttributes** attributes)
    SetResolutionScale(BlackmagicRawResolutionScale scale)
    SetResourceFormat(BlackmagicRawResourceFormat format)
IBlackmagicRawProcessedImage
    GetWidth(uint32_t* width)
    GetHeight(uint32_t* height)
    GetResourceType(BlackmagicRawResourceType* type)
    GetResourceFormat(BlackmagicRawResourceFormat* format)
    GetResourceSizeBytes(uint32_t* sizeBytes)
IBlackmagicRawCallback
    void ReadComplete(IBlackmagicRawJob* job, HRESULT result, IBlackmagicRawFrame* frame)
    void DecodeComplete(IBlackmagicRawJob* job, HRESULT result)
    void ProcessComplete(IBlackmagicRawJob* job, HRESULT result, IBlackmagicRawProcessedImage* processedImage)
    ?void TrimProgress(IBlackmagicRawJob* job, float progress)
    ?void TrimComplete(IBlackmagicRawJob* job, HRESULT result)
    ?void SidecarMetadataParseWarning(IBlackmagicRawClip* clip, BSTR fileName, uint32_t lineNumber, BSTR info)
    ?void SidecarMetadataParseError(IBlackmagicRawClip* clip, BSTR fileName, uint32_t lineNumber, BSTR info)
    ?void PreparePipelineComplete(void* userData, HRESULT result)
IBlackmagicRawClip
    GetWidth(uint32_t* width)
    GetHeight(uint32_t* height)
    GetFrameRate(float* frameRate)
    GetFrameCount(uint64_t* frameCount)
    CloneClipProcessingAttributes(IBlackmagicRawClipProcessingAttributes** attributes)
IBlackmagicRawClipEx
    GetBitStreamSizeBytes(uint64_t frameIndex, uint32_t* sizeBytes)
    CreateJobReadFrame(uint64_t frameIndex, void* bitStream, uint32_t bitStreamSizeBytes, IBlackmagicRawJob** job)
IBlackmagicRawClipResolutions
    GetResolutionCount(uint32_t* count)
    GetResolution(uint32_t index, uint32_t* width, uint32_t* height)
    GetClosestResolutionForScale(BlackmagicRawResolutionScale scale, uint32_t* width, uint32_t* height)
    GetClosestScaleForResolution(uint32_t width, uint32_t height, BlackmagicRawResolutionScale* scale)
IBlackmagicRawClipGeometry
    SetOrientationMode(BlackmagicRawGeometryMode mode)
    SetVerticalFlip(BlackmagicRawGeometryMode mode)
IBlackmagicRawResourceManager
    CreateResource(void* context, void* commandQueue, uint32_t sizeBytes, BlackmagicRawResourceType type, BlackmagicRawResourceUsage usage, void** resource)
    ReleaseResource(void* context, void* commandQueue, void* resource, BlackmagicRawResourceType type)
    CopyResource(void* context, void* commandQueue, void* source, BlackmagicRawResourceType sourceType, void* destination, BlackmagicRawResourceType destinationType, uint32_t sizeBytes, BOOL copyAsync)
IBlackmagicRawManualDecoderFlow1
    GetFrameStateSizeBytes(uint32_t* sizeBytes)
    PopulateFrameStateBuffer(IBlackmagicRawFrame* frame, IBlackmagicRawClipProcessingAttributes* clipAttributes, IBlackmagicRawFrameProcessingAttributes* frameAttributes, void* frameState, uint32_t frameStateSizeBytes)
    GetDecodedSizeBytes(void* frameState, uint32_t* sizeBytes)
    GetProcessedSizeBytes(void* frameState, uint32_t* sizeBytes)
    CreateJobDecode(void* frameState, void* bitStream, void* decoded, IBlackmagicRawJob** job)
    CreateJobProcess(void* frameState, void* decoded, void* processed, void* post3DLUT, IBlackmagicRawJob** job)
IBlackmagicRawManualDecoderFlow2
    GetFrameStateSizeBytes(uint32_t* sizeBytes)
    PopulateFrameStateBuffer(IBlackmagicRawFrame* frame, IBlackmagicRawClipProcessingAttributes* clipAttributes, IBlackmagicRawFrameProcessingAttributes* frameAttributes, void* frameState, uint32_t frameStateSizeBytes)
    GetDecodedSizeBytes(void* frameState, uint32_t* sizeBytes)
    GetWorkingSizeBytes(void* frameState, uint32_t* sizeBytes)
    GetProcessedSizeBytes(void* frameState, uint32_t* sizeBytes)
    CreateJobDecode(void* frameState, void* bitStream, void* decoded, IBlackmagicRawJob** job)
    CreateJobProcess(void* context, void* commandQueue, void* frameState, void* decoded, void* working, void* processed, void* post3DLUT, IBlackmagicRawJob** job)
IBlackmagicRawPipelineDevice
    GetInstructionSet(BlackmagicRawInstructionSet* instructionSet)
    GetIndex(uint32_t* deviceIndex)
    GetName(BSTR* name)
    GetInterop(BlackmagicRawInterop* interop)
    GetPipeline(BlackmagicRawPipeline* pipeline, void** context, void** commandQueue)
    GetPipelineName(BSTR* pipelineName)
IBlackmagicRawPipelineDeviceIterator
    CreateDevice(IBlackmagicRawPipelineDevice** device)
IBlackmagicRawPipelineIterator
    Next()
    GetPipeline(BlackmagicRawPipeline* pipeline)
IBlackmagicRawConfiguration
    GetPipeline(BlackmagicRawPipeline* pipeline, void** context, void** commandQueue)
    IsPipelineSupported(BlackmagicRawPipeline pipeline, BOOL* isSupported)
    GetCPUThreads(uint32_t* threadCount)
    GetMaxCPUThreadCount(uint32_t* threadCount)
    GetWriteMetadataPerFrame(BOOL* writePerFrame)
    SetFromDevice(IBlackmagicRawPipelineDevice* device)
    GetVersion(BSTR* version)
    GetCameraSupportVersion(BSTR* version)
IBlackmagicRawConfigurationEx
    GetResourceManager(IBlackmagicRawResourceManager** resourceManager)
IBlackmagicRaw
    OpenClip(BSTR fileName, IBlackmagicRawClip** clip)
    OpenClipWithGeometry(BSTR fileName, IBlackmagicRawClipGeometry* geometry, IBlackmagicRawClip** clip)
    SetCallback(IBlackmagicRawCallback* callback)
    FlushJobs()
IBlackmagicRawFactory
    CreateCodec(IBlackmagicRaw** codec)
    CreatePipelineIterator(BlackmagicRawInterop interop, IBlackmagicRawPipelineIterator** iterator)
    CreatePipelineDeviceIterator(BlackmagicRawPipeline pipeline, BlackmagicRawInterop interop, IBlackmagicRawPipelineDeviceIterator** iterator)
    CreateClipGeometry(IBlackmagicRawClipGeometry** geometry)
"""

# Names that nothing gave us.
OURS = "OpenClipWithGeometry SetOrientationMode SetVerticalFlip".split()
NAME_OF_OURS = ", which is a name of ours: what it is called there can be said in clipforge-names.txt (see README.md)"

# Asked for by identifier.
IDENTIFIED = ("IBlackmagicRawManualDecoderFlow1 IBlackmagicRawManualDecoderFlow2 IBlackmagicRawConfiguration "
              "IBlackmagicRawConfigurationEx IBlackmagicRawClipEx IBlackmagicRawClipResolutions "
              "IBlackmagicRawCallback").split()

# The constants of each enumeration with the values that the product knows, for those that DIR lacks.
CODES = """
Pipeline: PipelineCPU=cpub PipelineCUDA=cuda PipelineMetal=metl PipelineOpenCL=opcl
InstructionSet: InstructionSetSSE41=se41 InstructionSetAVX=avx_ InstructionSetAVX2=avx2
Interop: InteropNone=none InteropOpenGL=opgl
ResourceType: ResourceTypeBufferCPU=cpub ResourceTypeBufferCUDA=cudb ResourceTypeBufferMetal=metb
    ResourceTypeBufferOpenCL=oclb
ResourceUsage: ResourceUsageReadCPUWriteCPU=rcwc ResourceUsageReadGPUWriteCPU=rgwc ResourceUsageReadGPUWriteGPU=rgwg
ResourceFormat: ResourceFormatRGBAU8=rgba ResourceFormatBGRAU8=bgra ResourceFormatRGBAU16=16al
    ResourceFormatBGRAU16=16la ResourceFormatRGBU16=16il ResourceFormatRGBU16Planar=16pl ResourceFormatRGBF32=f32s
    ResourceFormatRGBF32Planar=f32p ResourceFormatBGRAF32=f32a
ResolutionScale: ResolutionScaleFull=full ResolutionScaleHalf=half ResolutionScaleQuarter=qrtr
    ResolutionScaleEighth=eith
GeometryMode: GeometryDisabled=dsbl GeometryMetadata=meta GeometryFlipHorizontal=flpx GeometryFlipVertical=flpy
ClipProcessingAttribute: ClipColorScienceGen=csgn ClipGamut=gamt ClipGamutCompression=gace ClipGamma=gama
    ClipToneCurveContrast=tcon ClipToneCurveSaturation=tsat ClipToneCurveMidpoint=tmid ClipToneCurveHighlights=thih
    ClipToneCurveShadows=tsha ClipToneCurveWhiteLevel=twit ClipToneCurveBlackLevel=tblk
    ClipToneCurveVideoBlackLevel=tvbl ClipHighlightRecovery=hlry ClipLUTMode=lutm
FrameProcessingAttribute: FrameISO=fiso FrameWhiteBalanceKelvin=wbkv FrameWhiteBalanceTint=wbtn FrameExposure=expo
"""

# How the compiler spells a parameter (below, SPELL) that can stand for one of ours: p a pointer, i a whole number or
# enumeration and its bytes, f a floating one, c a class, w a wide character, v nothing. A flag may have one byte or four.
FITTING = {
    "void": "v", "HRESULT": "i4", "uint32_t": "i4", "uint64_t": "i8", "float": "f4", "BOOL": "i[14]",
    "void*": "p.*", "void**": "pp.*", "uint32_t*": "pi4", "uint64_t*": "pi8", "float*": "pf4", "BOOL*": "pi[14]",
    "VARIANT*": "pc", "BSTR": "p(w|i2)", "BSTR*": "pp(w|i2)",
}
SPELL = r"""
template <class T> constexpr unsigned long long spell(unsigned place = 0) {
    using U = std::remove_cv_t<std::remove_reference_t<T>>;
    const auto at = [&](char c, unsigned n = 0) { return (unsigned long long)c << 8 * (place + n); };
    const auto sized = [&](char c) { return at(c) | at('0' + (sizeof(std::conditional_t<std::is_void_v<U>, char, U>) & 31), 1); };
    if constexpr (std::is_pointer_v<U>) return at('p') | spell<std::remove_pointer_t<U>>(place + 1);
    else if constexpr (std::is_void_v<U>) return at('v');
    else if constexpr (std::is_same_v<U, wchar_t>) return at('w');
    else if constexpr (std::is_enum_v<U> || std::is_integral_v<U>) return sized('i');
    else if constexpr (std::is_floating_point_v<U>) return sized('f');
    else return at('c');
}
struct Spelling { unsigned long long parts[16]; };
template <class R, class C, class... A> constexpr Spelling spellAll(R (C::*)(A...)) { return {{spell<R>(), spell<A>()...}}; }
template <class R, class C, class... A> constexpr Spelling spellAll(R (C::*)(A...) noexcept) { return {{spell<R>(), spell<A>()...}}; }
"""
SYSTEM = "#include <cstdint>\n#include <type_traits>\n#include <windows.h>\n#include <ole2.h>\n#include <oaidl.h>\n#include <ocidl.h>\n"
# Identifiers are written in ways that this compiler does without; these leave a mark of each in the text.
MARKS = "".join(f"#undef {macro.split('(')[0]}\n#define {macro} {text}\n" for macro, text in (
    ("MIDL_INTERFACE(x)", "struct clipforge_uuid(x)"),
    ("DECLSPEC_UUID(x)", "clipforge_uuid(x)"),
    ("__CRT_UUID_DECL(type, ...)", "; clipforge_guid(type, __VA_ARGS__);"),
    ("DEFINE_GUID(name, ...)", "; clipforge_guid(name, __VA_ARGS__);")))
# What IDL files import, as far as an interface's declaration needs it.
IDL_BASE = """
typedef long HRESULT; typedef int BOOL; typedef int INT; typedef unsigned int UINT; typedef long LONG;
typedef unsigned long ULONG; typedef unsigned long DWORD; typedef short SHORT; typedef unsigned short USHORT;
typedef unsigned short WORD; typedef unsigned char BYTE; typedef float FLOAT; typedef double DOUBLE;
typedef int INT32; typedef unsigned int UINT32; typedef hyper INT64; typedef unsigned hyper UINT64;
typedef int int32_t; typedef unsigned int uint32_t; typedef hyper int64_t; typedef unsigned hyper uint64_t;
typedef unsigned char uint8_t; typedef unsigned short uint16_t; typedef short int16_t; typedef hyper LONGLONG;
typedef unsigned hyper ULONGLONG; typedef short VARIANT_BOOL; typedef wchar_t WCHAR; typedef WCHAR OLECHAR;
typedef OLECHAR *BSTR; typedef [string] OLECHAR *LPOLESTR; typedef void *LPVOID; typedef void *PVOID;
typedef struct tagVARIANT VARIANT; typedef struct tagSAFEARRAY SAFEARRAY;
typedef struct _GUID { DWORD Data1; WORD Data2; WORD Data3; BYTE Data4[8]; } GUID; typedef GUID IID;
[object, local, uuid(00000000-0000-0000-C000-000000000046), pointer_default(unique)]
interface IUnknown { HRESULT QueryInterface([in] const IID *riid, [out] void **object); ULONG AddRef(); ULONG Release(); }
"""
IDL_IMPORTS = "unknwn oaidl ocidl objidl oleidl wtypes wtypesbase basetsd guiddef propidl dispex"


class Unusable(Exception):
    """What cannot be read at all; its text is the one line to say."""


def table():
    """{interface: {operation: (result, [parameter types], parameter text, whether DIR may lack it)}}"""
    interfaces = {}
    for line in OPERATIONS.strip().splitlines():
        if not line.startswith(" "):
            operations = interfaces[line] = {}
            continue
        optional, result, name, text = re.fullmatch(r"\s*(\??)(void )?(\w+)\((.*)\)", line).groups()
        types = [parameter.rsplit(" ", 1)[0] for parameter in text.split(", ")] if text else []
        operations[name] = (result.strip() if result else "HRESULT", types, text, bool(optional))
    return interfaces


def codes():
    """[(enumeration, constant, value)]"""
    rows = []
    for line in re.sub(r"\n\s+", " ", CODES.strip()).splitlines():
        enumeration, constants = line.split(": ")
        for constant in constants.split():
            name, letters = constant.split("=")
            rows.append((f"BlackmagicRaw{enumeration}", f"blackmagicRaw{name}", int.from_bytes(letters.encode(), "big")))
    return rows


def run(command, about):
    done = subprocess.run(command, capture_output=True, text=True, errors="replace")
    if done.returncode != 0:
        complaints = [line for line in done.stderr.splitlines() if "error" in line.lower()] or done.stderr.splitlines()
        raise Unusable(f"{about}: {re.sub(r'^/[^:]*/', '', complaints[0]) if complaints else 'failed'}")
    return done.stdout


class Declarations:
    """What DIR declares, by name."""

    def __init__(self, folder, compiler, widl, scratch):
        self.folder, self.compiler, self.scratch = folder, compiler, scratch
        self.aliases = self.read_aliases()
        self.headers, self.definitions = self.find_files(widl)
        self.text = self.preprocess()
        self.interfaces = {name: self.operations_of(body) for name, body in self.bodies()}
        self.identifiers = self.read_identifiers()

    def read_aliases(self):
        """clipforge-names.txt, if there is one: lines "our name = DIR's name" for operations and constants."""
        file = self.folder / "clipforge-names.txt"
        rows = file.read_text().splitlines() if file.is_file() else []
        return dict(re.split(r"\s*=\s*", row.strip(), maxsplit=1) for row in rows if "=" in row)

    def find_files(self, widl):
        if not self.folder.is_dir():
            raise Unusable("no such folder")
        files = sorted(file for file in self.folder.iterdir() if file.is_file())
        contents = {file: file.read_text(errors="replace") for file in files
                    if file.suffix.lower() in (".h", ".hpp", ".c", ".cpp", ".idl")}
        about = [file for file, text in contents.items() if "IBlackmagicRaw" in text]
        headers = [file for file in about if file.suffix.lower() in (".h", ".hpp")]
        named = [file for file in headers if file.name == "BlackmagicRawAPI.h"]
        idls = [file for file in about if file.suffix.lower() == ".idl"]
        definitions = [file for file in about
                       if file.suffix.lower() in (".c", ".cpp") and "IID_IBlackmagicRaw" in contents[file]]
        if not headers and not idls:
            raise Unusable("no header and no IDL file in it declares an interface of the decoder library")
        return (named or headers or [self.compile_idl(idl, widl) for idl in idls]), definitions

    def compile_idl(self, idl, widl):
        if not shutil.which(widl):
            raise Unusable(f"{idl.name} needs the IDL compiler {widl}, which is not there (package mingw-w64-tools)")
        imports = self.scratch / "idl"
        imports.mkdir(exist_ok=True)
        (imports / "clipforge-base.idl").write_text(IDL_BASE)
        for name in IDL_IMPORTS.split():
            (imports / f"{name}.idl").write_text('import "clipforge-base.idl";\n')
        # Type libraries are imported for dispatch interfaces, of which there are none; and no interface is remote,
        # whose parameters would be held to stricter rules.
        text = re.sub(r"\bimportlib\s*\(.*?\)\s*;", "", idl.read_text(errors="replace"))
        source = self.scratch / idl.name
        source.write_text(re.sub(r"\[([^\]]*)\bobject\b(?![^\]]*\blocal\b)", r"[\1object, local", text))
        header = self.scratch / (idl.stem + ".h")
        run([widl, "-h", "-o", header, "-I", self.folder, "-I", imports, source], f"{idl.name} is no IDL that can be read")
        text = header.read_text()
        header.write_text(re.sub(r"#include <clipforge-base\.h>\n", "", text))
        return header

    def includes(self):
        return "".join(f'#include "{header}"\n' for header in self.headers)

    def compile(self, source, *options):
        file = self.scratch / "probe.cpp"
        file.write_text(source)
        names = " and ".join(header.name for header in self.headers)
        return run([self.compiler, "-std=c++20", "-w", "-I", self.folder, *options, "-o", "-", file],
                   f"{names} does not compile")

    def preprocess(self):
        definitions = "".join(f'#include "{file}"\n' for file in self.definitions)
        text = self.compile(SYSTEM + MARKS + "clipforge_begin\n" + self.includes() + definitions, "-E", "-P")
        return text[text.index("clipforge_begin"):]

    def bodies(self):
        text = re.sub(r"__attribute__\s*\(\((?!uuid)(?:[^()]|\([^()]*\))*\)\)", " ", self.text)
        for start in re.finditer(r"\b(?:struct|class)\s+[^;{}=]*?\b(IBlackmagicRaw\w*)\s*(?:final\s*)?:[^;{}]*\{", text):
            depth, end = 1, start.end()
            while depth and end < len(text):
                depth += {"{": 1, "}": -1}.get(text[end], 0)
                end += 1
            yield start[1], text[start.end():end]

    @staticmethod
    def operations_of(body):
        return re.findall(r"\bvirtual\b[^;{}()~]*?\b(\w+)\s*\(", body)

    def read_identifiers(self):
        found = {}
        for uuid, name in re.findall(r'uuid\s*\(\s*"([^"]+)"\s*\)[^;{}]*?\b(IBlackmagicRaw\w*)', self.text):
            found.setdefault(name, uuid.strip("{}").upper())
        numbers = r"\s*([^;]*?)\s*[)}]\s*;"
        for pattern in (r"clipforge_guid\s*\(\s*(?:IID_)?(IBlackmagicRaw\w*)\s*," + numbers,
                        r"\bIID_(IBlackmagicRaw\w*)\s*=?\s*\{" + numbers):
            for name, text in re.findall(pattern, self.text):
                parts = [int(number, 0) for number in re.findall(r"0[xX][0-9a-fA-F]+|\b\d+", text)]
                if len(parts) == 11:
                    found[name] = "{:08X}-{:04X}-{:04X}-".format(*parts[:3]) + \
                        "{:02X}{:02X}-{:02X}{:02X}{:02X}{:02X}{:02X}{:02X}".format(*parts[3:])
        return found

    def name_of(self, ours, interface=""):
        return self.aliases.get(f"{interface}::{ours}", self.aliases.get(ours, ours))

    def constant(self, ours):
        """The expression that gives a constant's value, or None."""
        name = self.name_of(ours)
        scoped = re.search(r"\benum\s+(?:class|struct)\s+(\w+)[^{};]*\{[^{}]*\b" + name + r"\b", self.text)
        if scoped:
            return f"{scoped[1]}::{name}"
        return name if re.search(r"\b" + name + r"\b", self.text + self.macros()) else None

    def macros(self):
        """Numbers may be macros, which preprocessing leaves nothing of."""
        if not hasattr(self, "defined"):
            text = "".join(file.read_text(errors="replace") for file in self.headers)
            self.defined = " ".join(re.findall(r"^\s*#\s*define\s+(\w+)", text, re.M))
        return self.defined

    def measure(self, expressions):
        """{label: [numbers]}: what the compiler makes of declarations, each "type name = value"."""
        lines = [f'extern "C" {{ extern {kind} {label}; {kind} {label} = {value}; }}' for label, kind, value in expressions]
        assembly = self.compile(SYSTEM + self.includes() + SPELL + "\n".join(lines) + "\n", "-S", "-O0")
        measured, label = {}, None
        for line in assembly.splitlines():
            if start := re.match(r"(\w+):", line):
                label = measured.setdefault(start[1], [])
            elif label is not None and (number := re.match(r"\s*\.quad\s+(-?\d+)", line)):
                label.append(int(number[1]))
            elif label is not None and (space := re.match(r"\s*\.space\s+(\d+)", line)):
                label.extend([0] * (int(space[1]) // 8))
        return measured


def missing(declared):
    """Findings: what DIR lacks by name."""
    for interface, operations in table().items():
        if interface not in declared.interfaces:
            yield f"lacks the interface {interface}"
            continue
        names = declared.interfaces[interface]
        for operation, (_, _, _, optional) in operations.items():
            count = names.count(declared.name_of(operation, interface))
            if count == 0 and not optional:
                yield f"{interface} lacks {operation}" + (NAME_OF_OURS if operation in OURS else "")
            elif count > 1:
                yield f"{interface} declares {operation} {count} times"
        if interface in IDENTIFIED and interface not in declared.identifiers:
            yield f"{interface} has no identifier (as __uuidof, as IID_{interface} or in a definitions file)"


def spelled(number):
    return number.to_bytes(8, "little").rstrip(b"\0").decode()


def differing(interface, operation, expected, parts):
    """Findings: where an operation is declared otherwise than it can be called."""
    result, types, _, _ = expected
    given = [spelled(part) for part in parts]
    while given and not given[-1]:
        given.pop()
    if len(given) - 1 != len(types):
        yield f"{interface}::{operation} takes {len(given) - 1} arguments, where {len(types)} are needed"
        return
    for place, (ours, theirs) in enumerate(zip([result] + types, given)):
        enumerations = re.sub(r"^BlackmagicRaw\w+", "uint32_t", ours)
        pattern = FITTING.get(enumerations, "p" * ours.count("*") + "c")
        if not re.fullmatch(pattern, theirs):
            what = f"argument {place}" if place else "its result"
            yield f"{interface}::{operation}: {what} is {in_words(theirs)}, where {ours} is needed"


def in_words(spelling):
    kind = spelling.lstrip("p")
    words = {"c": "a class", "v": "nothing", "w": "a wide character"}.get(kind)
    words = words or f"a {'floating' if kind[0] == 'f' else 'whole'} number of {kind[1:]} bytes"
    return "a pointer to " * spelling.count("p") + words


def write_header(declared, slots, values, output):
    lines = ["// The decoder library's interfaces as " + ", ".join(file.name for file in declared.headers) + " declares them,",
             "// in the form of our own header. Written by decoder-include.py, which see.", "#pragma once", "",
             "#include <cstdint>", "", "#include <windows.h>", "", "#include <oaidl.h>", "#include <unknwn.h>", "",
             "constexpr uint32_t fourCharacterCode(const char (&text)[5]) {", "    uint32_t code = 0;",
             "    for (int i = 0; i < 4; ++i)", "        code = code << 8 | static_cast<unsigned char>(text[i]);",
             "    return code;", "}", ""]
    previous = None
    for enumeration, constant, _ in codes():
        if enumeration != previous:
            lines.append(f"using {enumeration} = uint32_t;")
            previous = enumeration
        lines.append(f"inline constexpr {enumeration} {constant} = 0x{values[constant]:08X};")
    interfaces = table()
    lines += [""] + [f"struct {interface};" for interface in interfaces] + [""]
    for interface, operations in interfaces.items():
        by_slot = {slot: operation for operation, slot in slots[interface].items()}
        last = max([2 + len(declared.interfaces[interface])] + list(by_slot))
        lines.append(f"struct {interface} : IUnknown {{")
        for operation, slot in [(by_slot.get(slot), slot) for slot in range(3, last + 1)] + \
                [(operation, None) for operation in operations if operation not in slots[interface]]:
            if operation:
                result, _, text, _ = operations[operation]
                lines.append(f"    virtual {result} STDMETHODCALLTYPE {operation}({text}) = 0;")
            else:
                lines.append(f"    virtual HRESULT STDMETHODCALLTYPE Slot{slot}() {{ return E_NOTIMPL; }}")
        lines += ["};", ""]
    lines += ["using CreateBlackmagicRawFactoryInstanceFunction = IBlackmagicRawFactory*(STDMETHODCALLTYPE*)();", ""]
    for interface in IDENTIFIED:
        parts = declared.identifiers[interface].split("-")
        tail = re.findall("..", parts[3] + parts[4])
        lines.append(f"__CRT_UUID_DECL({interface}, " + ", ".join("0x" + part for part in parts[:3] + tail) + ")")
    text = "\n".join(lines) + "\n"
    if not output.is_file() or output.read_text() != text:
        output.parent.mkdir(parents=True, exist_ok=True)
        output.write_text(text)


def examine(declared, say):
    """Slots and values by name; None when something cannot be used."""
    findings = list(missing(declared))
    if findings:
        for finding in findings:
            say(finding)
        return None
    expressions, places = [], {}
    for interface, operations in table().items():
        for operation in operations:
            theirs = declared.name_of(operation, interface)
            if theirs in declared.interfaces[interface]:
                place = len(places)
                places[place] = (interface, operation)
                member = f"&{interface}::{theirs}"
                expressions += [(f"slot{place}", f"decltype({member})", member),
                                (f"spelling{place}", "const Spelling", f"spellAll({member})")]
    constants = {constant: declared.constant(constant) for _, constant, _ in codes()}
    expressions += [(f"value_{constant}", "const unsigned long long", f"(unsigned long long)({expression}) & 0xFFFFFFFF")
                    for constant, expression in constants.items() if expression]
    measured = declared.measure(expressions)
    slots = {interface: {} for interface in table()}
    for place, (interface, operation) in places.items():
        expected = table()[interface][operation]
        # A pointer to a virtual member is its place in the table in bytes, and one.
        slots[interface][operation] = (measured[f"slot{place}"][0] - 1) // 8
        findings += differing(interface, operation, expected, measured[f"spelling{place}"])
    values = {}
    for _, constant, known in codes():
        values[constant] = measured[f"value_{constant}"][0] if constants[constant] else known
        if not constants[constant]:
            say(f"note: lacks the constant {constant}; 0x{known:08X} is used, as we know it")
        elif values[constant] != known:
            say(f"note: {constant} is 0x{values[constant]:08X}, which we know as 0x{known:08X}")
    for finding in findings:
        say(finding)
    return None if findings else (slots, values)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path)
    parser.add_argument("output", type=Path)
    parser.add_argument("--compiler", default="x86_64-w64-mingw32-g++-posix")
    parser.add_argument("--widl", default="x86_64-w64-mingw32-widl")
    given = parser.parse_args()

    def say(text):
        print(f"{given.folder}: {text}", file=sys.stderr)

    with tempfile.TemporaryDirectory() as scratch:
        try:
            declared = Declarations(given.folder.resolve(), given.compiler, given.widl, Path(scratch))
            usable = examine(declared, say)
        except Unusable as reason:
            say(reason)
            return 1
        if usable:
            write_header(declared, *usable, given.output)
    return 0 if usable else 1


if __name__ == "__main__":
    sys.exit(main())
