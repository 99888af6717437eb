#pragma once

#include "Common.h"
#include <ostream>

#include <gtest/gtest.h>

/// A failed comparison prints the code as people look it up.
struct Result {
    HRESULT code;
    bool operator==(const Result&) const = default;
    friend std::ostream& operator<<(std::ostream& stream, Result result) {
        return stream << "0x" << std::hex << static_cast<unsigned long>(result.code) << std::dec;
    }
};
#define EXPECT_RESULT(expected, actual) EXPECT_EQ(Result{expected}, Result{actual})
