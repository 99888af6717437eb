// The result record of file, folder, clip, buffer and attribute operations.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

/// Success is all zero. A failure carries a UTF-8 message, cut to the record's size; a message that fills the
/// record is not terminated inside it, so read it through text().
struct vdStatus {
    uint8_t failed = 0;
    uint8_t reserved = 0;
    char message[256] = {};

    /// The message without anything behind its end; empty on success. Borrowed from this record.
    std::string_view text() const { return {message, strnlen(message, sizeof message)}; }
};

/// A failure that carries `message` (at most 256 bytes of it). Never throws.
inline vdStatus vdFailure(std::string_view message) noexcept {
    vdStatus status;
    status.failed = 1;
    std::memcpy(status.message, message.data(), std::min(message.size(), sizeof status.message));
    return status;
}
