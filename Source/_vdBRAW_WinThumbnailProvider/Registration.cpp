#include "Registration.h"

#include <shlobj.h>

#include "BRThumbnailProvider.h"
#include "FileExtensions.h"
#include "RegistryRows.h"
#include "Utils/vdModule.h"

namespace {
/// Size of the command line with its terminator, in characters.
constexpr size_t commandLineCapacity = 268;

/// For the whole machine, and in the merged view that the shell reads.
const RegistryRoot roots[] = {{HKEY_LOCAL_MACHINE, machineClasses}, {HKEY_CLASSES_ROOT, L""}};

/// The texts that depend on where the library lies.
enum Place : size_t { modulePath, iconPath, commandLine, placeCount };
using Places = std::wstring[placeCount];

#define CLASS_KEY L"CLSID\\" CLIPFORGE_CLSID_TEXT
#define SERVER_KEY CLASS_KEY L"\\InProcServer32"
#define TYPE_NAME L"Clipforge.Clip"

// "DisableProcessIsolation" has the shell load the handler in its own process; "Apartment" has each object
// called on the thread that made it.
constexpr RegistryRow classRows[] = {
    {CLASS_KEY, nullptr, L"Clipforge Thumbnail Handler"},
    {CLASS_KEY, L"DisableProcessIsolation", DWORD{1}},
    {SERVER_KEY, nullptr, RegistryText{modulePath}},
    {SERVER_KEY, L"ThreadingModel", L"Apartment"},
};
constexpr RegistryRow typeRows[] = {
    {TYPE_NAME, nullptr, L"Blackmagic RAW Clip"},
    {TYPE_NAME L"\\shell\\open", nullptr, L"open"},
    {TYPE_NAME L"\\shell\\open\\command", nullptr, RegistryText{commandLine}},
};
// Below the key of an extension.
constexpr RegistryRow clipRows[] = {
    {L"", nullptr, TYPE_NAME},
    {L"", L"Content Type", L"movie/x-braw"},
    {THUMBNAIL_BINDING_KEY, nullptr, CLIPFORGE_CLSID_TEXT},
    {L"\\DefaultIcon", nullptr, RegistryText{iconPath}},
};
constexpr RegistryRow companionRows[] = {
    {L"\\DefaultIcon", nullptr, RegistryText{iconPath}},
};

HRESULT findPlaces(Places& places) {
    if (const HRESULT hr = findModulePath(places[modulePath]); FAILED(hr))
        return hr;
    const std::wstring folder = folderOf(places[modulePath]);
    places[commandLine] = L"\"" + folder + L"Clipforge.exe\" \"%1\"";
    if (places[commandLine].size() >= commandLineCapacity)
        return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);

    // An icon path that would be too long is left at the folder: no icon shows, and nothing else suffers.
    places[iconPath] = folder + L"Clipforge_Icon.ico";
    if (places[iconPath].size() >= MAX_PATH)
        places[iconPath] = folder;
    return S_OK;
}

HRESULT writeExtensions(const RegistryRoot& root, FileKind kind, std::span<const RegistryRow> rows,
                        const Places& places) {
    for (const FileExtension& extension : fileExtensions)
        if (extension.kind == kind)
            if (const HRESULT hr = writeRegistryRows(root, extension.name, rows, places); FAILED(hr))
                return hr;
    return S_OK;
}

HRESULT writeAll(const RegistryRoot& root, const Places& places) {
    HRESULT hr = writeRegistryRows(root, L"", classRows, places);
    if (SUCCEEDED(hr))
        hr = writeExtensions(root, FileKind::clip, clipRows, places);
    if (SUCCEEDED(hr))
        hr = writeRegistryRows(root, L"", typeRows, places);
    if (SUCCEEDED(hr))
        hr = writeExtensions(root, FileKind::companion, companionRows, places);
    return hr;
}

HRESULT deleteAll(const RegistryRoot& root) {
    HRESULT hr = deleteRegistryKey(root, CLASS_KEY);
    if (SUCCEEDED(hr))
        hr = deleteRegistryKey(root, TYPE_NAME);
    for (const FileExtension& extension : fileExtensions)
        if (SUCCEEDED(hr))
            hr = deleteRegistryKey(root, extension.name);
    return hr;
}
} // namespace

HRESULT registerServer() {
    Places places;
    if (const HRESULT hr = findPlaces(places); FAILED(hr))
        return hr;
    for (const RegistryRoot& root : roots)
        if (const HRESULT hr = writeAll(root, places); FAILED(hr))
            return hr;
    SHChangeNotify(SHCNE_ASSOCCHANGED, SHCNF_IDLIST, nullptr, nullptr);
    return S_OK;
}

HRESULT unregisterServer() {
    for (const RegistryRoot& root : roots)
        if (const HRESULT hr = deleteAll(root); FAILED(hr))
            return hr;
    return S_OK;
}
