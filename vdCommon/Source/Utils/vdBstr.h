// Ownership of a COM string.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include <windows.h>

#include <oleauto.h>

/// Owns one BSTR, or none. Moves; does not copy.
class vdBstr {
public:
    vdBstr() = default;
    /// A copy of `text`; null when memory is short.
    explicit vdBstr(std::wstring_view text)
        : m_text(SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
    vdBstr(vdBstr&& other) noexcept : m_text(std::exchange(other.m_text, nullptr)) {}
    vdBstr& operator=(vdBstr&& other) noexcept {
        std::swap(m_text, other.m_text);
        return *this;
    }
    ~vdBstr() { SysFreeString(m_text); }

    /// The string itself, still owned here; may be null.
    BSTR get() const { return m_text; }
    /// Frees what is held and gives the place where a callee stores a new string.
    BSTR* put() {
        reset();
        return &m_text;
    }
    void reset() { SysFreeString(std::exchange(m_text, nullptr)); }
    /// The characters; empty for null.
    std::wstring_view view() const {
        return m_text ? std::wstring_view(m_text, SysStringLen(m_text)) : std::wstring_view();
    }

private:
    BSTR m_text = nullptr;
};
