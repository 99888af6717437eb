#include "Checks.h"

#include <algorithm>
#include <iterator>

#include <shlobj.h>
#include <shlwapi.h>

#include "BlackmagicRawAPIFile.h"
#include "Console.h"
#include "DecoderFile.h"
#include "GuardFailures.h"
#include "HandlerHost.h"
#include "HandlerRegistration.h"
#include "LibraryFile.h"
#include "Paths.h"
#include "PictureChild.h"
#include "Probe.h"
#include "RegistryRows.h"
#include "Utils/vdCloudFile.h"
#include "Utils/vdModule.h"

namespace {

using Findings = std::vector<Finding>;

constexpr const wchar_t* kHandler = L"Clipforge_Thumbnails.dll";
constexpr const wchar_t* kGuard = L"Clipforge_Guard.dll";
constexpr const wchar_t* kWorker = L"Clipforge_Worker.exe";
constexpr const wchar_t* kExplorerPolicies =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer";
constexpr const wchar_t* kShellExtensions =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Shell Extensions\\";

// Mending.

HRESULT bind(const Installation& installation) {
    const bool isUsers = installation.server && installation.server->hive == Hive::user;
    return registerHandler(installation.folder, isUsers ? Scope::user : Scope::machine);
}

/// Registering again helps only where the files are.
std::function<HRESULT()> binding(const Installation& installation) {
    if (fileSize(installation.folder + kGuard) < 0)
        return {};
    return [installation] { return bind(installation); };
}

constexpr const wchar_t* kRegisterAgain =
    L"Install the handler again, or let \"clipforge-thumb doctor --fix\" register it.";

std::function<HRESULT()> unblocking(const std::wstring& path) {
    return [path] { return DeleteFileW((path + L":Zone.Identifier").c_str()) ? S_OK : lastError(); };
}

Finding blocked(const wchar_t* id, const std::wstring& path) {
    return {id, L"Windows blocks " + path + L", because it was downloaded.",
            L"Right-click the file, choose Properties and tick \"Unblock\".", unblocking(path), L""};
}

// The decoder library.

/// Where the maker's own software has the right file, if it does.
std::wstring decoderElsewhere() {
    for (const std::wstring& folder : usualDecoderFolders())
        if (holdsDecoder(folder))
            return decoderIn(folder);
    return {};
}

/// A decoder that is not there or not the right one.
Finding wrongDecoder(const wchar_t* id, const std::wstring& text, const std::wstring& wanted) {
    const std::wstring source = decoderElsewhere();
    if (source.empty())
        return {id,
                text,
                L"Get the maker's BlackmagicRawAPI.dll of exactly " +
                    std::to_wstring(BlackmagicRawAPIFileSize) +
                    L" bytes (it comes with the maker's own software) and put it into " + folderOf(wanted),
                {},
                L""};
    return {
        id, text, L"Copy it from " + source + L" to " + folderOf(wanted),
        [source, wanted] { return CopyFileW(source.c_str(), wanted.c_str(), FALSE) ? S_OK : lastError(); },
        L""};
}

/// The one that the handler would load.
std::wstring decoderOf(const Installation& installation) {
    const std::wstring beside = installation.folder + BlackmagicRawAPIFileName;
    const std::wstring host = std::wstring(BlackmagicRawAPIHostFolder) + BlackmagicRawAPIFileName;
    return fileSize(beside) < 0 && fileSize(host) >= 0 ? host : beside;
}

Note checkDecoder(const Examination& examination, Findings& findings) {
    const std::wstring path = decoderOf(examination.installation);
    const LibraryFile file = examineLibrary(path);
    if (file.size < 0)
        findings.push_back(wrongDecoder(
            L"decoder-missing", L"The decoder library is missing: " + path + L" is not there.", path));
    else if (!file.fault.empty())
        findings.push_back(wrongDecoder(L"decoder-unusable",
                                        L"The decoder library " + path + L" " + file.fault + L".", path));
    else if (file.size != BlackmagicRawAPIFileSize)
        findings.push_back(wrongDecoder(L"decoder-version",
                                        L"The decoder library is another version: " + path + L" has " +
                                            std::to_wstring(file.size) + L" bytes, not " +
                                            std::to_wstring(BlackmagicRawAPIFileSize) + L".",
                                        path));
    else if (file.isBlocked)
        findings.push_back(blocked(L"decoder-blocked", path));
    return path + (file.version.empty() ? L"" : L", version " + file.version);
}

// Who is asked for thumbnails.

Note checkBinding(const Examination& examination, Findings& findings) {
    const Installation& installation = examination.installation;
    if (!installation.binding) {
        findings.push_back({L"not-bound",
                            L"Nobody makes thumbnails of .braw files: the handler is not registered.",
                            kRegisterAgain, binding(installation), L""});
        return {};
    }
    const Binding& bound = *installation.binding;
    if (bound.isOurs)
        return bound.hive == Hive::user ? L"registered for you" : L"registered for everybody";
    const std::wstring other = titleOfClass(bound.classId);
    if (bound.key != L".braw") {
        findings.push_back(
            {L"bound-by-type",
             L"Another program makes the thumbnails of .braw files: " + other + L", through its file type " +
                 bound.key + L".",
             L"In that program's settings switch its thumbnails off, or choose another program to open "
             L".braw files with, or remove that program.",
             {},
             L""});
        return {};
    }
    std::function<HRESULT()> fix = binding(installation);
    if (fix && bound.hive == Hive::user)
        fix = [installation] {
            const std::wstring key = std::wstring(L"Software\\Classes\\.braw") + THUMBNAIL_BINDING_KEY;
            RegDeleteTreeW(HKEY_CURRENT_USER, key.c_str());
            return bind(installation);
        };
    findings.push_back({L"bound-to-other",
                        L"Another program makes the thumbnails of .braw files: " + other + L".",
                        kRegisterAgain, fix, L"Take .braw thumbnails away from " + other + L"?"});
    return {};
}

Note checkClass(const Examination& examination, Findings& findings) {
    const Installation& installation = examination.installation;
    if (installation.isFor32BitOnly) {
        findings.push_back({L"class-32-bit",
                            L"The handler is registered for 32-bit programs only; Explorer is not one.",
                            kRegisterAgain, binding(installation), L""});
        return {};
    }
    if (!installation.server) {
        if (installation.binding && installation.binding->isOurs)
            findings.push_back({L"class-missing",
                                L"Half of the handler's registration is missing: where its file lies.",
                                kRegisterAgain, binding(installation), L""});
        return {L"not registered", false};
    }
    if (!installation.server->isApartment || !installation.server->isInProcess)
        findings.push_back({L"class-incomplete",
                            L"The handler's registration is damaged; Explorer cannot use it.", kRegisterAgain,
                            binding(installation), L""});
    return L"complete";
}

/// A file of ours: there, whole, and not blocked. True when it can be used.
bool checkOwnFile(const std::wstring& path, const wchar_t* idMissing, bool isProgram, Findings& findings) {
    const LibraryFile file = examineLibrary(path);
    const bool isUsable = file.fault.empty() || (isProgram && file.isProgram);
    if (file.size < 0)
        findings.push_back({idMissing,
                            L"A file of the handler's is missing: " + path,
                            L"Install the handler again.",
                            {},
                            L""});
    else if (!isUsable)
        findings.push_back(
            {L"file-unusable", path + L" " + file.fault + L".", L"Install the handler again.", {}, L""});
    else if (file.isBlocked)
        findings.push_back(blocked(L"file-blocked", path));
    return file.size >= 0 && isUsable && !file.isBlocked;
}

bool isGuard(const std::wstring& path) {
    return _wcsicmp(fileName(path).c_str(), kGuard) == 0;
}

Note checkFiles(const Examination& examination, Findings& findings) {
    const Installation& installation = examination.installation;
    if (!installation.server)
        return {L"not registered", false};
    const std::wstring& path = installation.server->path;
    if (fileSize(path) < 0) {
        findings.push_back({L"handler-missing", L"The handler's file is not where it was registered: " + path,
                            L"Put it back there, or install the handler again.", binding(installation), L""});
        return {};
    }
    if (!checkOwnFile(path, L"handler-missing", false, findings))
        return {};
    if (isGuard(path) &&
        (!checkOwnFile(installation.folder + kWorker, L"worker-missing", true, findings) ||
         !checkOwnFile(installation.folder + kHandler, L"inner-handler-missing", false, findings)))
        return {};
    HandlerLibrary library;
    if (const HRESULT result = library.load(path); FAILED(result))
        findings.push_back(
            {L"handler-unloadable",
             L"Windows cannot load the handler " + path + L": " + describe(result),
             L"Install the handler again; if that does not help, see what your virus scanner or your "
             L"administrator has blocked.",
             {},
             L""});
    return path;
}

// What Explorer and those who administer the machine allow.

Note checkExplorer(const Examination&, Findings& findings) {
    constexpr const wchar_t* key = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Advanced";
    if (registryNumber(HKEY_CURRENT_USER, key, L"IconsOnly").value_or(0) != 0)
        findings.push_back(
            {L"icons-only", L"Explorer is set to show icons only, never thumbnails, for all files.",
             L"In a folder's window choose View, Options, View, and clear \"Always show icons, never "
             L"thumbnails\".",
             [] {
                 const DWORD off = 0;
                 return HRESULT_FROM_WIN32(static_cast<DWORD>(
                     RegSetKeyValueW(HKEY_CURRENT_USER, key, L"IconsOnly", REG_DWORD, &off, sizeof off)));
             },
             L"Show thumbnails again, for all kinds of files?"});
    return L"shows thumbnails";
}

bool isPolicySet(const wchar_t* name) {
    for (const HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
        if (registryNumber(root, kExplorerPolicies, name).value_or(0) != 0)
            return true;
    return false;
}

bool isOnNetwork(std::wstring_view path) {
    constexpr std::wstring_view literal = L"\\\\?\\"; // "UNC" stands for a server's backslashes behind it
    const bool isLiteral = path.starts_with(literal);
    if (isLiteral)
        path.remove_prefix(literal.size());
    wchar_t drive[] = L"?:\\";
    drive[0] = path.empty() ? L'?' : path[0];
    return path.starts_with(isLiteral ? L"UNC\\" : L"\\\\") || GetDriveTypeW(drive) == DRIVE_REMOTE;
}

Note checkPolicies(const Examination& examination, Findings& findings) {
    constexpr const wchar_t* remedy = L"Ask whoever administers this computer; the policy is called \"";
    if (isPolicySet(L"DisableThumbnails"))
        findings.push_back(
            {L"policy-thumbnails",
             L"A policy switches all thumbnails off.",
             std::wstring(remedy) + L"Turn off the display of thumbnails and only display icons\".",
             {},
             L""});
    if (isPolicySet(L"DisableThumbnailsOnNetworkFolders")) {
        const bool concernsClip = isOnNetwork(examination.clip);
        findings.push_back({L"policy-network",
                            L"A policy switches thumbnails off in folders on the network.",
                            std::wstring(remedy) +
                                L"Turn off the display of thumbnails and only display icons on network "
                                L"folders\".",
                            {},
                            L"",
                            concernsClip ? Finding::Grade::fault : Finding::Grade::advice});
    }
    return L"thumbnails are allowed";
}

Note checkApproval(const Examination& examination, Findings& findings) {
    const Installation& installation = examination.installation;
    if (!installation.binding || !installation.binding->isOurs)
        return {L"not registered", false};
    const wchar_t* const classId = installation.binding->classId.c_str();
    for (const HKEY root : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER})
        if (registryText(root, std::wstring(kShellExtensions) + L"Blocked", classId)) {
            findings.push_back(
                {L"class-blocked",
                 L"The handler is on Windows' list of blocked extensions.",
                 L"Ask whoever put it there; the list is the key \"Shell Extensions\\Blocked\".",
                 {},
                 L""});
            return {};
        }
    const bool isApproved =
        registryText(HKEY_LOCAL_MACHINE, std::wstring(kShellExtensions) + L"Approved", classId) ||
        registryText(HKEY_CURRENT_USER, std::wstring(kShellExtensions) + L"Approved", classId);
    if (isPolicySet(L"EnforceShellExtensionSecurity") && !isApproved)
        findings.push_back({L"not-approved",
                            L"This computer allows approved extensions only, and the handler is not on the "
                            L"list.",
                            kRegisterAgain, binding(installation), L""});
    return isApproved ? L"approved" : L"needs no approval";
}

// The clip.

Note checkClip(const Examination& examination, Findings& findings) {
    const std::wstring& clip = examination.clip;
    if (clip.empty())
        return {L"none was named", false};
    if (wouldBeFetched(clip.c_str())) {
        findings.push_back({L"clip-in-cloud",
                            clip + L" lies in the cloud only, not on this computer.",
                            L"Right-click it and choose \"Always keep on this device\".",
                            {},
                            L""});
        return {};
    }
    if (const std::wstring obstacle = obstacleTo(clip); !obstacle.empty()) {
        findings.push_back({L"clip-unreadable",
                            clip + L" " + obstacle + L".",
                            L"See whether the name is right, and whether you can open the file.",
                            {},
                            L""});
        return {};
    }
    if (const std::wstring kind = kindOfNoClip(clip); !kind.empty()) {
        findings.push_back(
            {L"clip-other-kind", clip + L" is " + kind + L", not a clip.", L"Name a .braw clip.", {}, L""});
        return {};
    }
    if (_wcsicmp(PathFindExtensionW(clip.c_str()), L".braw") != 0)
        findings.push_back({L"clip-extension",
                            clip + L" has no name that ends in .braw, and Explorer goes by that.",
                            L"Give it a name that ends in .braw.",
                            {},
                            L""});
    return clip + L", " + std::to_wstring(fileSize(clip)) + L" bytes";
}

// What is tried takes time, and a process of its own each. It is left where something is wrong already, which
// would only show once more.

bool isAnyFault(const Findings& findings) {
    return std::ranges::find(findings, Finding::Grade::fault, &Finding::grade) != findings.end();
}

Note checkDecoding(const Examination& examination, Findings& findings) {
    if (isAnyFault(findings))
        return {L"for what stands above", false};
    const std::wstring library = decoderOf(examination.installation);
    const auto meet = [&](const std::wstring& clip) {
        return probeLibrary({clip, library, L""}, [](const std::wstring&) {});
    };
    ProbeOutcome meeting = meet(examination.clip);
    if (meeting.isGood)
        return examination.clip.empty()
                   ? L"the decoder library works, as far as it can be seen without a clip"
                   : L"the decoder library gives a picture";
    // Whose fault it is shows without the clip.
    const ProbeOutcome withoutClip = examination.clip.empty() ? meeting : meet(L"");
    if (!withoutClip.isGood)
        findings.push_back({L"decoder-broken",
                            L"The decoder library does not work here: " + withoutClip.trouble,
                            L"Most likely " + withoutClip.meaning + L". Install the maker's software again.",
                            {},
                            L""});
    else
        findings.push_back({L"clip-undecodable",
                            L"The decoder library gives no picture of this clip: " + meeting.trouble,
                            L"Most likely " + meeting.meaning + L". " + meeting.advice,
                            {},
                            L""});
    return {};
}

Note checkPicture(const Examination& examination, Findings& findings) {
    if (!examination.installation.server || isAnyFault(findings))
        return {L"for what stands above", false};
    const std::wstring& handler = examination.installation.server->path;
    const bool hasClip = !examination.clip.empty();
    if (!hasClip && !isGuard(handler))
        return {L"no clip was named", false};
    // Without a clip the worker is given something that it has to refuse.
    const PictureAnswer answer = askInChild(handler, hasClip ? examination.clip : handler);
    constexpr HRESULT workersOwn[] = {GUARD_E_WORKER_NOT_STARTED, GUARD_E_WORKER_VERSION,
                                      GUARD_E_HANDLER_NOT_LOADED, GUARD_E_WORKER_LIED};
    if (std::ranges::find(workersOwn, answer.result) != std::end(workersOwn))
        findings.push_back(
            {L"worker-unstartable",
             L"The handler's worker does not work: " + answer.trouble + L".",
             L"Install the handler again; if that does not help, see what your virus scanner or your "
             L"administrator has blocked.",
             {},
             L""});
    else if (!hasClip && answer.result != E_FAIL)
        findings.push_back(
            {L"worker-answer",
             L"Asked for a picture of what is no clip, the handler's worker did not refuse, but " +
                 (answer.isGood ? L"made one" : L"this came of it: " + answer.trouble) + L".",
             L"Look again in a minute. If it stays so, install the handler again, and see what your "
             L"virus scanner or your administrator has blocked.",
             {},
             L""});
    else if (hasClip && !answer.isGood)
        findings.push_back(
            {L"no-picture",
             L"The handler makes no picture of this clip: " + answer.trouble + L".",
             L"Send what \"clipforge-thumb probe\" says of this clip to those who make the handler.",
             {},
             L""});
    return hasClip ? L"made in " + decimal(answer.milliseconds, 0) + L" ms" : L"the handler's worker answers";
}

// The machine.

Note checkMemory(const Examination&, Findings& findings) {
    constexpr DWORDLONG mebibyte = 1 << 20, least = 256;
    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof memory;
    GlobalMemoryStatusEx(&memory);
    const DWORDLONG free = memory.ullAvailPageFile / mebibyte;
    if (free < least)
        findings.push_back({L"memory",
                            L"Only " + std::to_wstring(free) + L" MB of memory are free.",
                            L"Close other programs.",
                            {},
                            L""});
    return std::to_wstring(free) + L" MB are free";
}

std::vector<std::wstring> thumbnailCache() {
    std::vector<std::wstring> files;
    wchar_t folder[MAX_PATH];
    if (SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder) != S_OK)
        return files;
    const std::wstring explorer = std::wstring(folder) + L"\\Microsoft\\Windows\\Explorer\\";
    WIN32_FIND_DATAW entry{};
    const HANDLE search = FindFirstFileW((explorer + L"thumbcache_*.db").c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE)
        return files;
    do
        files.push_back(explorer + entry.cFileName);
    while (FindNextFileW(search, &entry));
    FindClose(search);
    return files;
}

Note checkCache(const Examination&, Findings& findings) {
    const std::vector<std::wstring> files = thumbnailCache();
    if (files.empty())
        return L"empty";
    findings.push_back(
        {L"cache", L"Explorer keeps the thumbnails that it has, and remembers where it got none.",
         L"If all else is well: run Disk Cleanup with \"Thumbnails\" ticked, and start Explorer again.",
         [files] {
             HRESULT result = S_OK;
             for (const std::wstring& file : files)
                 if (!DeleteFileW(file.c_str()))
                     result = lastError(); // Explorer holds those that it uses
             return result;
         },
         L"Empty Explorer's memory of thumbnails? It makes them anew when they are needed.",
         Finding::Grade::advice});
    return {};
}

constexpr Check kChecks[] = {
    {L"Decoder library", checkDecoder}, {L"Who makes the thumbnails", checkBinding},
    {L"Registration", checkClass},      {L"The handler's files", checkFiles},
    {L"Explorer", checkExplorer},       {L"Policies", checkPolicies},
    {L"Approval", checkApproval},       {L"Clip", checkClip},
    {L"Decoding", checkDecoding},       {L"Picture", checkPicture},
    {L"Memory", checkMemory},           {L"Explorer's memory", checkCache},
};

} // namespace

std::span<const Check> checks() {
    return kChecks;
}
