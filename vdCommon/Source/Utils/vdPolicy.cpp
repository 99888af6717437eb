#include "Utils/vdPolicy.h"

#include <iterator>

namespace {
struct Place {
    HKEY root;
    const wchar_t* key;
};
const Place places[] = {
    {HKEY_LOCAL_MACHINE, L"Software\\Policies\\Verdane\\Clipforge"},
    {HKEY_CURRENT_USER, L"Software\\Policies\\Verdane\\Clipforge"},
    {HKEY_CURRENT_USER, L"Software\\Verdane\\Clipforge"},
    {HKEY_LOCAL_MACHINE, L"Software\\Verdane\\Clipforge"},
};

struct Row {
    const wchar_t* name;
    DWORD initial;
    DWORD lowest;
    DWORD highest;
};
constexpr Row rows[] = {
    {L"CloudThumbnails", 0, 0, 1},
    {L"FailureEvents", 1, 0, 1},
    {L"Workers", 0, 0, 16},
    {L"WorkerSeconds", 15, 1, 600},
    {L"WorkerIdleSeconds", 30, 1, 3600},
    {L"WorkerMegabytes", 4096, 256, 1048576},
    {L"WorkerLowIntegrity", 0, 0, 1},
    {L"KillerMinutes", 10, 0, 1440},
    {L"PauseSeconds", 60, 0, 3600},
};
static_assert(std::size(rows) == static_cast<size_t>(vdPolicy::count));
} // namespace

DWORD policyValue(vdPolicy policy) noexcept {
    const Row& row = rows[static_cast<size_t>(policy)];
    for (const Place& place : places) {
        DWORD value = 0;
        DWORD size = sizeof value;
        if (RegGetValueW(place.root, place.key, row.name, RRF_RT_REG_DWORD, nullptr, &value, &size) ==
                ERROR_SUCCESS &&
            row.lowest <= value && value <= row.highest)
            return value;
    }
    return row.initial;
}
