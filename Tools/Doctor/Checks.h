// Everything that can keep a thumbnail from showing, as a table of checks: the likeliest reason first.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>

#include "Installation.h"

/// Something that is not as it must be, in words for people without training.
struct Finding {
    enum class Grade { fault, advice }; ///< advice: all may be well all the same
    const wchar_t* id = L"";            ///< for programs; never changes
    std::wstring text;
    std::wstring remedy;
    std::function<HRESULT()> fix; ///< mends it, where that is safe; else empty
    std::wstring question;        ///< that must be answered with yes before `fix`; empty when none is needed
    Grade grade = Grade::fault;
};

/// What all checks look at.
struct Examination {
    std::wstring clip; ///< a full path, or empty when none was given
    Installation installation;
};

/// A few words about what is well, or why nothing was looked at.
struct Note {
    Note() = default;
    Note(std::wstring words, bool looked = true) : text(std::move(words)), wasLooked(looked) {}
    Note(const wchar_t* words, bool looked = true) : text(words), wasLooked(looked) {}
    std::wstring text;
    bool wasLooked = true;
};

struct Check {
    const wchar_t* title;
    /// Adds what it finds; the note counts when that is nothing.
    Note (*run)(const Examination& examination, std::vector<Finding>& findings);
};

std::span<const Check> checks();
