// Questions to the handler whose answers are known, and what may not be left once they are answered.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HandlerHost.h"
#include "ReferenceDecoderSession.h"
#include "TemporaryFolder.h"

/// "0x80004005"
std::string resultText(HRESULT result);

struct KnownQuestion {
    std::wstring clip;
    UINT size;
    HRESULT result;
    std::vector<uint8_t> pixels; ///< top row first; of a picture alone
};

/// Good and bad clips at good and bad sizes; the files live as long as the object. Read by any thread.
class KnownQuestions {
public:
    KnownQuestions();
    const std::vector<KnownQuestion>& all() const { return m_questions; }
    /// A clip of 64 by 48 at its full size.
    const KnownQuestion& good() const { return m_questions.front(); }

private:
    TemporaryFolder m_folder;
    std::vector<KnownQuestion> m_questions;
};

/// Asks and compares to the last pixel. Empty when the answer is right.
std::string troubleInAnswer(const KnownQuestion& question, const HandlerLibrary* library);

/// Waits until the decoder library is gone, which goes with its last thread; false when it stays.
bool isDecoderUnloaded();

/// Looks, between one question and the next, what was left behind since its making.
class Leftovers {
public:
    Leftovers();
    /// Empty when all references, resources and GDI objects came back and the decoder library is gone.
    std::string trouble();
    ReferenceDecoderSession& decoder() { return m_decoder; }

private:
    ReferenceDecoderSession m_decoder;
    uint32_t m_gdiObjects;
};

/// Puts the registration of the handler back as it was: the prefix is others' too.
class RegistrationKeeper {
public:
    RegistrationKeeper();
    ~RegistrationKeeper();
    RegistrationKeeper(const RegistrationKeeper&) = delete;
    RegistrationKeeper& operator=(const RegistrationKeeper&) = delete;
    /// The library that the class is registered with now.
    static std::optional<std::wstring> registeredLibrary();

private:
    std::optional<std::wstring> m_before;
};

/// Calls an export without arguments; E_NOINTERFACE when the library has none of that name.
HRESULT callExport(const std::wstring& library, const char* name);
