// An environment variable of this process that gets its former value back.
#pragma once

#include "Common.h"

class EnvironmentVariable {
public:
    /// A null value removes the variable.
    EnvironmentVariable(std::wstring name, const wchar_t* value) : m_name(std::move(name)) {
        wchar_t buffer[1024];
        const DWORD length = GetEnvironmentVariableW(m_name.c_str(), buffer, 1024);
        m_former.assign(buffer, length);
        SetEnvironmentVariableW(m_name.c_str(), value);
    }
    ~EnvironmentVariable() {
        SetEnvironmentVariableW(m_name.c_str(), m_former.empty() ? nullptr : m_former.c_str());
    }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

private:
    std::wstring m_name;
    std::wstring m_former;
};
