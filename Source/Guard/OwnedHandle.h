// Owners of Windows' handles and of mapped memory.
#pragma once

#include <memory>
#include <utility>

#include <windows.h>

/// Closes the handle at the end. Null when it owns none.
class OwnedHandle {
public:
    OwnedHandle() = default;
    explicit OwnedHandle(HANDLE handle) noexcept : m_handle(handle) {}
    OwnedHandle(OwnedHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    OwnedHandle& operator=(OwnedHandle&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~OwnedHandle() {
        if (m_handle != nullptr)
            CloseHandle(m_handle);
    }
    HANDLE get() const noexcept { return m_handle; }
    explicit operator bool() const noexcept { return m_handle != nullptr; }
    /// Where a function puts the handle that it hands out; nothing may be owned yet.
    HANDLE* put() noexcept { return &m_handle; }

private:
    HANDLE m_handle = nullptr;
};

struct ViewCloser {
    void operator()(void* view) const noexcept { UnmapViewOfFile(view); }
};
/// A mapped view of a section.
template <class Content>
using MappedView = std::unique_ptr<Content, ViewCloser>;
