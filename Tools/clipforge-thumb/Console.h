// What a command says to a person: text to the console or a pipe, and Windows' own words for a result.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <windows.h>

enum ExitCode { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

/// Ends a command, or one clip of several, with one line for the person and an exit code.
class CommandError : public std::runtime_error {
public:
    explicit CommandError(std::wstring line, ExitCode code = EXIT_FAILED)
        : std::runtime_error("command"), m_line(std::move(line)), m_code(code) {}
    const std::wstring& line() const { return m_line; }
    ExitCode code() const { return m_code; }

private:
    std::wstring m_line;
    ExitCode m_code;
};

/// Standard output: UTF-16 to a console, UTF-8 to a file or pipe.
void print(std::wstring_view text);
/// The same to standard error, as one line that begins with the program's name.
void printError(std::wstring_view line);

/// "0x80004005"
std::wstring hexadecimal(HRESULT result);
/// "0x80004005 Unspecified error"
std::wstring describe(HRESULT result);
/// A number with the given count of digits behind the point.
std::wstring decimal(double value, int digits);
HRESULT lastError();
