#include "ReferenceDecoderControl.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include <windows.h>

namespace {

/// Holds the view for the module's life. Where the named memory cannot be had the block is private: the
/// decoder works, only nobody else sees its account.
class ControlView {
public:
    ControlView() {
        wchar_t name[64];
        std::swprintf(name, std::size(name), L"Local\\ReferenceDecoder.%lu", GetCurrentProcessId());
        m_mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                       sizeof(ReferenceDecoderControl), name);
        const bool isNew = GetLastError() != ERROR_ALREADY_EXISTS;
        if (m_mapping)
            m_view = MapViewOfFile(m_mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(ReferenceDecoderControl));
        if (isNew || !m_view)
            applyReferenceDecoderEnvironment(control());
    }
    ~ControlView() {
        if (m_view)
            UnmapViewOfFile(m_view);
        if (m_mapping)
            CloseHandle(m_mapping);
    }
    ControlView(const ControlView&) = delete;
    ControlView& operator=(const ControlView&) = delete;

    ReferenceDecoderControl& control() {
        static ReferenceDecoderControl s_private{};
        return m_view ? *static_cast<ReferenceDecoderControl*>(m_view) : s_private;
    }

private:
    HANDLE m_mapping = nullptr;
    void* m_view = nullptr;
};

} // namespace

ReferenceDecoderControl& referenceDecoderControl() {
    static ControlView s_view;
    static ReferenceDecoderControl& s_control = s_view.control();
    return s_control;
}

uint32_t referenceDecoderCallName(ReferenceDecoderControl& control, const char* name) {
    while (control.namesLock.exchange(1, std::memory_order_acquire))
        Sleep(0);
    const uint32_t count = control.callNameCount;
    uint32_t index = 0;
    while (index < count && std::strcmp(control.callNames[index].text, name) != 0)
        ++index;
    if (index == count) {
        if (count == ReferenceDecoderControl::maximumCallNames)
            index = count - 1; // shares the last entry: the table is sized for all names there are
        else {
            std::snprintf(control.callNames[index].text, sizeof control.callNames[index].text, "%s", name);
            control.callNameCount = count + 1;
        }
    }
    control.namesLock.store(0, std::memory_order_release);
    return index;
}
