#include "GuardValues.h"

#include "FileExtensions.h"
#include "GuardProvider.h"
#include "RegistryRows.h"

namespace {
#define CLASS_KEY L"Software\\Classes\\CLSID\\" GUARD_CLSID_TEXT
#define SERVER_KEY CLASS_KEY L"\\InProcServer32"
/// Where an administrator who allows approved shell extensions alone looks.
#define APPROVED_KEY L"Software\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\Approved"
#define CLASS_TITLE L"Clipforge Guarded Thumbnail Handler"
} // namespace

// A handler that is initialised with a file has to be in the shell's own process, whatever it does there.
std::vector<SharedValue> guardValues(const std::wstring& guard) {
    std::vector<SharedValue> values = {
        {L"Class", CLASS_KEY, nullptr, CLASS_TITLE},
        {L"Isolation", CLASS_KEY, L"DisableProcessIsolation", DWORD{1}},
        {L"Server", SERVER_KEY, nullptr, guard},
        {L"Threads", SERVER_KEY, L"ThreadingModel", L"Apartment"},
        {L"Approved", APPROVED_KEY, GUARD_CLSID_TEXT, CLASS_TITLE},
    };
    for (const FileExtension& extension : fileExtensions)
        if (extension.kind == FileKind::clip)
            values.push_back({extension.name,
                              std::wstring(L"Software\\Classes\\") + extension.name + THUMBNAIL_BINDING_KEY,
                              nullptr, GUARD_CLSID_TEXT});
    return values;
}
