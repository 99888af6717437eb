#include "ReferenceDecoderControl.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <memory>

#include <windows.h>

namespace {

/// Holds the view for the module's life. Where the named memory cannot be had the block is private: the
/// decoder works, only nobody else sees its account.
class ControlView {
public:
    ControlView() {
        m_mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                       sizeof(ReferenceDecoderControl), referenceDecoderBlockName().c_str());
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

std::wstring referenceDecoderBlockName() {
    wchar_t name[128] = {};
    const DWORD length = GetEnvironmentVariableW(referenceDecoderBlockVariable, name, std::size(name));
    return length > 0 && length < std::size(name)
               ? name
               : L"Local\\ReferenceDecoder." + std::to_wstring(GetCurrentProcessId());
}

void armReferenceDecoder(ReferenceDecoderControl& control, const char* name, uint32_t occurrence,
                         ReferenceDecoderFaultKind kind, int64_t value) {
    for (auto& slot : control.faults)
        if (slot.kind == ReferenceDecoderFaultKind::none) {
            slot.name = referenceDecoderCallName(control, name);
            slot.occurrence = occurrence;
            slot.value = value;
            slot.kind = kind; // last: this arms it
            return;
        }
}

ReferenceDecoderControl& referenceDecoderControl() {
    static ControlView s_view;
    static ReferenceDecoderControl& s_control = s_view.control();
    return s_control;
}

const char* referenceDecoderLatestCall() {
    const ReferenceDecoderControl& control = referenceDecoderControl();
    const uint32_t call = control.latestCall;
    return call == 0 ? "none" : control.callNames[call - 1].text;
}

uint32_t referenceDecoderCallName(ReferenceDecoderControl& control, const char* name) {
    // Who holds it does so for microseconds, or was ended while it did.
    for (int patience = 1000; patience > 0 && control.namesLock.exchange(1, std::memory_order_acquire);
         --patience)
        Sleep(patience < 100 ? 1 : 0);
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
