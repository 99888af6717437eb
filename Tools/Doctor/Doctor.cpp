#include "Doctor.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <iterator>
#include <optional>

#include "Console.h"
#include "Paths.h"
#include "Utils/vdModule.h"

namespace {

struct Request {
    std::wstring clip;
    std::wstring folder = folderOf(programPath());
    bool wantsFix = false;
    bool saysYes = false;
    bool wantsJson = false;
};

Request requestOf(Words words) {
    Request request;
    std::optional<std::wstring> folder;
    const Option options[] = {{L"--folder", &folder},

                              {L"--fix", &request.wantsFix},
                              {L"--yes", &request.saysYes},
                              {L"--json", &request.wantsJson}};
    const std::vector<std::wstring> clips = parseWords(words, options);
    if (clips.size() > 1)
        throw CommandError(L"doctor takes one clip, or none", EXIT_USAGE);
    if (!clips.empty())
        request.clip = fullPath(clips[0]);
    if (folder)
        request.folder = fullPath(*folder + L"\\");
    return request;
}

const DoctorListener& personListener() {
    static const DoctorListener s_listener{
        [](const wchar_t* title) { print(std::wstring(title) + L" ... "); },
        [](const Note& note, std::span<const Finding> added) {
            if (added.empty()) {
                print(note.wasLooked ? L"good" : L"not looked at");
                print(note.text.empty() ? L"\n" : L" (" + note.text + L")\n");
                return;
            }
            print(added[0].grade == Finding::Grade::fault ? L"NOT GOOD\n" : L"worth knowing\n");
            for (const Finding& finding : added)
                print(L"    " + finding.text + L"\n      What helps: " + finding.remedy + L"\n");
        }};
    return s_listener;
}

bool answersYes(const std::wstring& question) {
    print(question + L" [y/N] ");
    wchar_t answer[16] = {};
    return std::fgetws(answer, static_cast<int>(std::size(answer)), stdin) != nullptr &&
           std::towlower(answer[0]) == L'y';
}

/// Mends what can be mended; true when anything was.
bool mend(const Diagnosis& diagnosis, const Request& request) {
    bool isChanged = false;
    for (const Finding& finding : diagnosis.findings) {
        if (!finding.fix)
            continue;
        const bool mayAsk = !request.wantsJson;
        if (!finding.question.empty() && !request.saysYes && !(mayAsk && answersYes(finding.question)))
            continue;
        const HRESULT result = finding.fix();
        isChanged = isChanged || SUCCEEDED(result);
        if (request.wantsJson)
            continue;
        print(L"Mending: " + finding.text + L" ... ");
        if (SUCCEEDED(result))
            print(L"done\n");
        else if (result == E_ACCESSDENIED)
            print(L"not allowed; start the command prompt with \"Run as administrator\" and do this again\n");
        else
            print(L"failed, " + describe(result) + L"\n");
    }
    return isChanged;
}

std::wstring jsonText(const std::wstring& text) {
    std::wstring json = L"\"";
    for (const wchar_t character : text) {
        if (character == L'"' || character == L'\\')
            json += L'\\';
        if (character >= L' ')
            json += character;
        else {
            wchar_t escape[8];
            std::swprintf(escape, std::size(escape), L"\\u%04x", static_cast<unsigned>(character));
            json += escape;
        }
    }
    return json + L"\"";
}

void printJson(const Diagnosis& diagnosis) {
    std::wstring json = L"{\"healthy\": ";
    json += diagnosis.isHealthy() ? L"true" : L"false";
    json += L", \"findings\": [";
    for (const Finding& finding : diagnosis.findings) {
        json += &finding == diagnosis.findings.data() ? L"\n  " : L",\n  ";
        json += L"{\"id\": " + jsonText(finding.id) + L", \"grade\": ";
        json += finding.grade == Finding::Grade::fault ? L"\"fault\"" : L"\"advice\"";
        json += L", \"text\": " + jsonText(finding.text) + L", \"remedy\": " + jsonText(finding.remedy) +
                L", \"fixable\": " + (finding.fix ? L"true" : L"false") + L"}";
    }
    print(json + L"]}\n");
}

void printSummary(const Diagnosis& diagnosis, bool hasMended) {
    if (diagnosis.isHealthy()) {
        print(L"\nAll is well. Where a folder shows no thumbnails all the same, choose medium icons or "
              L"larger there.\n");
        return;
    }
    const auto isFault = [](const Finding& finding) { return finding.grade == Finding::Grade::fault; };
    const auto first = std::ranges::find_if(diagnosis.findings, isFault);
    print(L"\nThe likeliest reason: " + first->text + L"\n  What helps: " + first->remedy + L"\n");
    if (!hasMended &&
        std::ranges::any_of(diagnosis.findings, [](const Finding& finding) { return !!finding.fix; }))
        print(L"\"clipforge-thumb doctor --fix\" mends what it can.\n");
}

} // namespace

bool Diagnosis::isHealthy() const {
    return std::ranges::all_of(
        findings, [](const Finding& finding) { return finding.grade == Finding::Grade::advice; });
}

Diagnosis diagnose(const std::wstring& clip, const std::wstring& folder, const DoctorListener& listener) {
    const Examination examination{clip, inspectInstallation(folder)};
    Diagnosis diagnosis;
    for (const Check& check : checks()) {
        listener.before(check.title);
        const size_t former = diagnosis.findings.size();
        const Note note = check.run(examination, diagnosis.findings);
        listener.after(note, std::span(diagnosis.findings).subspan(former));
    }
    return diagnosis;
}

int runDoctor(Words words) {
    const Request request = requestOf(words);
    const DoctorListener silent{[](const wchar_t*) {}, [](auto&&...) {}};
    const DoctorListener& listener = request.wantsJson ? silent : personListener();
    Diagnosis diagnosis = diagnose(request.clip, request.folder, listener);
    if (request.wantsFix && mend(diagnosis, request)) {
        if (!request.wantsJson)
            print(L"\nLooking again.\n");
        diagnosis = diagnose(request.clip, request.folder, listener);
    }
    if (request.wantsJson)
        printJson(diagnosis);
    else
        printSummary(diagnosis, request.wantsFix);
    return diagnosis.isHealthy() ? EXIT_DONE : EXIT_FAILED;
}
