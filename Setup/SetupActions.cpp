// What the installer does beyond copying files and writing rows: the functions that its package names.
//
// Windows Installer calls those of the first kind while it plans, with all properties at hand, and those of
// the second when it changes the machine: they know only what was planned for them, in "CustomActionData".
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <windows.h>
// Windows' own types first.
#include <msi.h>
#include <msiquery.h>

#include "DecoderFile.h"
#include "HandlerRegistration.h"
#include "RegistryRows.h"
#include "Utils/vdGuard.h"
#include "Utils/vdModule.h"
#include "Utils/vdResult.h"
#include "Utils/vdText.h"

namespace {

/// A property's value, empty when it has none.
std::wstring property(MSIHANDLE setup, const wchar_t* name) {
    DWORD length = 0;
    wchar_t none[1] = L"";
    if (MsiGetPropertyW(setup, name, none, &length) != ERROR_MORE_DATA)
        return {};
    std::wstring value(++length, L'\0');
    if (MsiGetPropertyW(setup, name, value.data(), &length) != ERROR_SUCCESS)
        return {};
    value.resize(length);
    return value;
}

/// Shows a text, where anything is shown, and has it written into the installer's log.
void tell(MSIHANDLE setup, INSTALLMESSAGE kind, const std::wstring& text) {
    PMSIHANDLE record = MsiCreateRecord(1);
    MsiRecordSetStringW(record, 0, L"[1]");
    MsiRecordSetStringW(record, 1, text.c_str());
    MsiProcessMessage(setup, kind, record);
}

constexpr auto information = static_cast<INSTALLMESSAGE>(INSTALLMESSAGE_USER | MB_OK | MB_ICONINFORMATION);

/// Windows Installer's word for "it worked" or "undo all of it"; nothing thrown may reach it.
template <class Work>
UINT guardAction(Work&& work) {
    return SUCCEEDED(guardBoundary(work)) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

std::wstring hexadecimal(HRESULT code) {
    wchar_t text[16];
    wsprintfW(text, L"0x%08X", static_cast<unsigned>(code));
    return text;
}

/// What a changing action is told: texts, of which none has the character between them.
constexpr wchar_t between = L'|';
using Plan = std::vector<std::wstring>;

/// The plan's texts, at least `count`: those that it does not have are empty.
Plan planOf(MSIHANDLE setup, size_t count) {
    std::wistringstream data(property(setup, L"CustomActionData"));
    Plan plan;
    for (std::wstring text; std::getline(data, text, between);)
        plan.push_back(text);
    plan.resize(std::max(count, plan.size()));
    return plan;
}

void plan(MSIHANDLE setup, const wchar_t* action, const Plan& plan) {
    std::wstring data;
    for (const std::wstring& text : plan)
        data += text + between;
    MsiSetPropertyW(setup, action, data.c_str());
}

constexpr wchar_t machineText[] = L"machine";

Scope scopeNamed(const std::wstring& text) {
    return text == machineText ? Scope::machine : Scope::user;
}

/// The folder of this product's files when it is installed, with a separator at its end; else empty.
std::wstring installedFolder(MSIHANDLE setup) {
    wchar_t path[MAX_PATH];
    DWORD length = MAX_PATH;
    const INSTALLSTATE state = MsiGetComponentPathW(
        property(setup, L"ProductCode").c_str(), property(setup, L"HANDLERCOMPONENT").c_str(), path, &length);
    return state == INSTALLSTATE_LOCAL ? folderOf(path) : std::wstring();
}

/// Whom it is installed for, once it is; else whom the user wants it for.
Scope scopeOf(MSIHANDLE setup) {
    const std::wstring installed = installedFolder(setup);
    if (!installed.empty() && installed == registeredFolder(Scope::user))
        return Scope::user;
    return property(setup, L"ALLUSERS").empty() ? Scope::user : Scope::machine;
}

/// The folder that `folder` lies in.
std::wstring parentOf(const std::wstring& folder) {
    return folder.empty() ? folder : folderOf(folder.substr(0, folder.size() - 1));
}

std::wstring defaultUserFolder(MSIHANDLE setup) {
    return property(setup, L"LocalAppDataFolder") + L"Programs\\Clipforge Thumbnails\\";
}

/// A folder to copy a decoder library from, empty when there is none.
std::wstring findDecoder(const std::wstring& previous) {
    if (holdsDecoder(previous))
        return previous;
    for (const std::wstring& folder : usualDecoderFolders())
        if (holdsDecoder(folder))
            return folder;
    return {};
}

/// The package's files, each as a text of its name and its hash.
Plan packedFiles(MSIHANDLE setup) {
    Plan files;
    PMSIHANDLE view;
    MsiDatabaseOpenViewW(MsiGetActiveDatabase(setup),
                         L"SELECT `FileName`, `HashPart1`, `HashPart2`, `HashPart3`, `HashPart4` "
                         L"FROM `File`, `MsiFileHash` WHERE `File`.`File` = `MsiFileHash`.`File_`",
                         &view);
    MsiViewExecute(view, 0);
    for (PMSIHANDLE row; MsiViewFetch(view, &row) == ERROR_SUCCESS;) {
        wchar_t name[MAX_PATH];
        DWORD length = MAX_PATH;
        if (MsiRecordGetStringW(row, 1, name, &length) != ERROR_SUCCESS)
            continue;
        std::wstring file = name;
        for (UINT part = 2; part <= 5; ++part)
            file += L'?' + std::to_wstring(static_cast<ULONG>(MsiRecordGetInteger(row, part)));
        files.push_back(file);
    }
    return files;
}

/// Whether a file that packedFiles has told of lies in `folder` as it was packed. A full disk or a damaged
/// package can go unnoticed until then.
bool isWhole(const std::wstring& folder, const std::wstring& packed) {
    const size_t at = packed.find(L'?');
    MSIFILEHASHINFO hash = {};
    hash.dwFileHashInfoSize = sizeof hash;
    if (MsiGetFileHashW((folder + packed.substr(0, at)).c_str(), 0, &hash) != ERROR_SUCCESS)
        return false;
    std::wstring text;
    for (const ULONG part : hash.dwData)
        text += L'?' + std::to_wstring(part);
    return packed.substr(at) == text;
}

/// Whether files can be made in `folder`, or where it will be made. Leaves nothing behind.
DWORD tryToWrite(std::wstring folder) {
    while (!folder.empty() && GetFileAttributesW(folder.c_str()) == INVALID_FILE_ATTRIBUTES)
        folder = parentOf(folder);
    if (folder.empty())
        return ERROR_PATH_NOT_FOUND;
    const HANDLE file = CreateFileW((folder + L"Clipforge_Setup.tmp").c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return GetLastError();
    CloseHandle(file);
    return ERROR_SUCCESS;
}

HRESULT planDecoder(MSIHANDLE setup, const std::wstring& target, const std::wstring& previous) {
    const std::wstring asked = property(setup, L"DECODERFOLDER");
    if (!asked.empty() && !holdsDecoder(asked)) {
        tell(setup, INSTALLMESSAGE_ERROR,
             L"There is no BlackmagicRawAPI.dll of exactly 2,161,112 bytes in " + asked + L".");
        return E_FAIL;
    }
    if (asked.empty() && holdsDecoder(target))
        return S_OK;
    const std::wstring source = asked.empty() ? findDecoder(previous) : asked;
    if (!source.empty())
        plan(setup, L"TakeDecoder", {source, target});
    return S_OK;
}

} // namespace

extern "C" {

/// Planning, before Windows Installer settles on folders: where the product or its older version is, it
/// stays; for one user it goes where no rights are needed.
__declspec(dllexport) UINT WINAPI ChooseFolder(MSIHANDLE setup) {
    return guardAction([setup] {
        if (!property(setup, L"INSTALLFOLDER").empty())
            return S_OK;
        std::wstring folder = parentOf(installedFolder(setup));
        if (folder.empty() && !property(setup, L"OLDERFOUND").empty())
            folder = parentOf(registeredFolder(scopeOf(setup)));
        if (folder.empty() && scopeOf(setup) == Scope::user)
            folder = defaultUserFolder(setup);
        if (!folder.empty())
            MsiSetPropertyW(setup, L"INSTALLFOLDER", folder.c_str());
        return S_OK;
    });
}

/// Planning: what the changing actions will need.
__declspec(dllexport) UINT WINAPI PrepareSetup(MSIHANDLE setup) {
    return guardAction([setup] {
        const bool removing = property(setup, L"REMOVE") == L"ALL";
        const Scope scope = scopeOf(setup);
        const std::wstring scopeText = scope == Scope::machine ? machineText : L"user";
        const std::wstring installed = installedFolder(setup);
        const std::wstring folder = installed.empty() ? property(setup, L"VERSIONFOLDER") : installed;
        const std::wstring previous = registeredFolder(scope);
        Plan registering = packedFiles(setup);
        registering.insert(registering.begin(), {scopeText, folder});
        plan(setup, L"CheckFolder", {folder});
        plan(setup, L"RegisterHandler", registering);
        plan(setup, L"UndoRegisterHandler", {scopeText, folder, previous});
        plan(setup, L"UnregisterHandler", {scopeText, folder});
        plan(setup, L"UndoUnregisterHandler", {scopeText, folder});
        plan(setup, L"DropDecoder", {scopeText, folder});
        return removing ? S_OK : planDecoder(setup, folder, previous);
    });
}

/// Changing, before any file is written.
__declspec(dllexport) UINT WINAPI CheckFolder(MSIHANDLE setup) {
    return guardAction([setup] {
        const std::wstring folder = planOf(setup, 1)[0];
        const HRESULT hr = HRESULT_FROM_WIN32(tryToWrite(folder));
        if (FAILED(hr))
            tell(setup, INSTALLMESSAGE_ERROR,
                 L"No files can be written to " + folder + L": " + hexadecimal(hr));
        return hr;
    });
}

/// Changing: a copy of the user's decoder library beside the handler. Without one all else still works, and
/// it can be put there later, so a failure is told and undoes nothing.
__declspec(dllexport) UINT WINAPI TakeDecoder(MSIHANDLE setup) {
    return guardAction([setup] {
        const Plan plan = planOf(setup, 2);
        if (!CopyFileW(decoderIn(plan[0]).c_str(), decoderIn(plan[1]).c_str(), FALSE))
            tell(setup, INSTALLMESSAGE_INFO,
                 L"BlackmagicRawAPI.dll could not be copied from " + plan[0] + L": " +
                     hexadecimal(HRESULT_FROM_WIN32(GetLastError())));
        return S_OK;
    });
}

/// Changing: nothing is registered that is not there.
__declspec(dllexport) UINT WINAPI RegisterHandler(MSIHANDLE setup) {
    return guardAction([setup] {
        const Plan plan = planOf(setup, 2);
        for (size_t i = 2; i < plan.size(); ++i)
            if (!isWhole(plan[1], plan[i])) {
                tell(setup, INSTALLMESSAGE_ERROR,
                     L"Not all files are in " + plan[1] +
                         L" as they should be. Is the disk full, or the package damaged?");
                return E_FAIL;
            }
        const HRESULT hr = registerHandler(plan[1], scopeNamed(plan[0]));
        if (FAILED(hr))
            tell(setup, INSTALLMESSAGE_ERROR,
                 L"The thumbnail handler could not be registered: " + hexadecimal(hr));
        return hr;
    });
}

/// Undoing: what was registered before is again, an older version of ours say; the copy of the decoder
/// library goes with the files of the version that has failed.
__declspec(dllexport) UINT WINAPI UndoRegisterHandler(MSIHANDLE setup) {
    return guardAction([setup] {
        const Plan plan = planOf(setup, 3);
        const Scope scope = scopeNamed(plan[0]);
        if (plan[2] != plan[1])
            DeleteFileW(decoderIn(plan[1]).c_str());
        return plan[2].empty() ? unregisterHandler(scope) : registerHandler(plan[2], scope);
    });
}

/// A failure is told and stops nothing: whoever removes a program wants it gone. When a newer version has
/// taken over, the registration is that one's.
__declspec(dllexport) UINT WINAPI UnregisterHandler(MSIHANDLE setup) {
    return guardAction([setup] {
        const Plan plan = planOf(setup, 2);
        const Scope scope = scopeNamed(plan[0]);
        const std::wstring registered = registeredFolder(scope);
        if (!registered.empty() && registered != plan[1])
            return S_OK;
        const HRESULT hr = unregisterHandler(scope);
        if (FAILED(hr))
            tell(setup, INSTALLMESSAGE_INFO,
                 L"The thumbnail handler's registration could not be removed: " + hexadecimal(hr));
        return S_OK;
    });
}

/// When all has worked: the copy of the decoder library in the folder of a version that goes, and the folders
/// that are empty without it. Another build of the same version lives on in the same folder.
__declspec(dllexport) UINT WINAPI DropDecoder(MSIHANDLE setup) {
    return guardAction([setup] {
        const Plan plan = planOf(setup, 2);
        const std::wstring& folder = plan[1];
        if (registeredFolder(scopeNamed(plan[0])) == folder)
            return S_OK;
        DeleteFileW(decoderIn(folder).c_str());
        RemoveDirectoryW(folder.c_str());
        RemoveDirectoryW(parentOf(folder).c_str());
        return S_OK;
    });
}

/// All is installed, and here is what is missing.
__declspec(dllexport) UINT WINAPI TellAboutDecoder(MSIHANDLE setup) {
    return guardAction([setup] {
        const std::wstring folder = installedFolder(setup);
        if (!holdsDecoder(folder))
            tell(setup, information,
                 L"Explorer will show thumbnails as soon as you put Blackmagic Design's BlackmagicRawAPI.dll "
                 L"of "
                 L"exactly 2,161,112 bytes into " +
                     folder + L".");
        return S_OK;
    });
}

} // extern "C"
