#include "KnownQuestions.h"

#include <cstdio>

#include "GdiObjects.h"
#include "Scenario.h"
#include "TestClips.h"

std::string resultText(HRESULT result) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(result));
    return text;
}

KnownQuestions::KnownQuestions() {
    const auto file = [this](const char* name, const std::string& bytes) {
        writeFileBytes(m_folder.path() / name, bytes);
        return (m_folder.path() / name).make_preferred().wstring();
    };
    const TestClip clip{64, 48}, deep{64, 48, 4095};
    const std::string bytes = testClipBytes(clip);
    const std::wstring good = file("good.braw", bytes);
    const std::wstring goodDeep = file("deep.braw", testClipBytes(deep));
    constexpr uint32_t factors[] = {1, 2, 4, 8};
    for (const uint32_t factor : factors) {
        m_questions.push_back({good, clip.height / factor, S_OK, expectedPicture(clip, factor)});
        m_questions.push_back({goodDeep, deep.height / factor, S_OK, expectedPicture(deep, factor)});
    }
    m_questions.push_back({file("no frames.braw", testHeader(clip, 0)), clip.height, S_OK,
                           std::vector<uint8_t>(size_t{clip.width} * clip.height * 4)});
    const struct {
        std::wstring clip;
        UINT size;
    } bad[] = {
        {file("cut.braw", bytes.substr(0, bytes.size() / 2)), 48},
        {file("text.braw", "This is not a clip."), 48},
        {file("empty.braw", ""), 48},
        {(m_folder.path() / "missing.braw").make_preferred().wstring(), 48},
        {m_folder.path().wstring(), 48},
        {L"", 48},
        {good, 0},
        {good, 100'000},
        {good, UINT32_MAX},
    };
    for (const auto& [path, size] : bad)
        m_questions.push_back({path, size, E_FAIL, {}});
}

std::string troubleInAnswer(const KnownQuestion& question, const HandlerLibrary* library) {
    const ThumbnailAnswer answer = askForThumbnail(question.clip, question.size, library);
    if (answer.result != question.result)
        return resultText(answer.result) + " instead of " + resultText(question.result);
    if (answer.result == S_OK && picturePixels(answer.bitmap.get()) != question.pixels)
        return "a wrong picture";
    if (answer.result != S_OK && answer.bitmap.get() != nullptr)
        return "a picture with a failure";
    return {};
}

bool isDecoderUnloaded() {
    for (int i = 0; i < 400; ++i) {
        if (GetModuleHandleW(L"BlackmagicRawAPI.dll") == nullptr)
            return true;
        Sleep(5);
    }
    return false;
}

Leftovers::Leftovers() : m_gdiObjects(countGdiObjects()) {
    m_decoder.reset();
}

std::string Leftovers::trouble() {
    if (!isDecoderUnloaded())
        return "the decoder library stays loaded";
    if (const ReferenceDecoderAccount account = m_decoder.account(); !account.isClean())
        return account.describe();
    if (const uint32_t now = countGdiObjects(); now != m_gdiObjects)
        return "GDI objects: " + std::to_string(now) + " instead of " + std::to_string(m_gdiObjects);
    return {};
}

HRESULT callExport(const std::wstring& library, const char* name) {
    const HMODULE module = LoadLibraryExW(library.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (module == nullptr)
        return HRESULT_FROM_WIN32(GetLastError());
    const auto function =
        reinterpret_cast<HRESULT(WINAPI*)()>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    const HRESULT result = function != nullptr ? function() : E_NOINTERFACE;
    FreeLibrary(module);
    return result;
}

RegistrationKeeper::RegistrationKeeper() : m_before(registeredLibrary()) {}

RegistrationKeeper::~RegistrationKeeper() {
    if (m_before && GetFileAttributesW(m_before->c_str()) != INVALID_FILE_ATTRIBUTES)
        callExport(*m_before, "DllRegisterServer");
}

std::optional<std::wstring> RegistrationKeeper::registeredLibrary() {
    wchar_t path[1024];
    DWORD size = sizeof path;
    const LSTATUS status =
        RegGetValueW(HKEY_CLASSES_ROOT, L"CLSID\\{5b8e2d41-93c7-4f0a-b6e5-2d17c9a4f380}\\InProcServer32",
                     nullptr, RRF_RT_REG_SZ, nullptr, path, &size);
    return status == ERROR_SUCCESS ? std::optional<std::wstring>(path) : std::nullopt;
}
