#include "KillerClips.h"

#include <algorithm>
#include <iterator>

#include "GuardFailures.h"
#include "Utils/vdPolicy.h"

namespace {
/// FNV-1a with 64 bits. Never 0.
uint64_t hash(const void* data, size_t bytes) {
    uint64_t value = 0xCBF29CE484222325;
    for (size_t i = 0; i < bytes; ++i)
        value = (value ^ static_cast<const uint8_t*>(data)[i]) * 0x100000001B3;
    return value | 1;
}

uint64_t hashOfPath(const std::wstring& path) {
    return hash(path.data(), path.size() * sizeof(wchar_t));
}

/// Of the file's size and time; one that cannot be seen has a state, too.
uint64_t hashOfState(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data);
    const DWORD state[] = {data.nFileSizeHigh, data.nFileSizeLow, data.ftLastWriteTime.dwHighDateTime,
                           data.ftLastWriteTime.dwLowDateTime};
    return hash(state, sizeof state);
}

uint64_t inMilliseconds(vdPolicy policy, uint64_t unit) {
    return GetTickCount64() + policyValue(policy) * unit;
}
} // namespace

HRESULT KillerClips::refusal(const std::wstring& path) const noexcept {
    const uint64_t now = GetTickCount64();
    if (now < m_pauseUntil)
        return GUARD_E_PAUSE;
    const uint64_t wanted = hashOfPath(path);
    const bool kills = std::any_of(std::begin(m_killers), std::end(m_killers), [&](const Killer& killer) {
        return killer.path == wanted && now < killer.until && killer.state == hashOfState(path);
    });
    return kills ? GUARD_E_CLIP_KILLS : S_OK;
}

void KillerClips::killed(const std::wstring& path) noexcept {
    const uint64_t wanted = hashOfPath(path);
    // The clip's own entry, else the one that would end first; a free one has ended long ago.
    auto* const place =
        std::min_element(std::begin(m_killers), std::end(m_killers), [&](const Killer& a, const Killer& b) {
            return a.path == wanted || (b.path != wanted && a.until < b.until);
        });
    *place = {wanted, hashOfState(path), inMilliseconds(vdPolicy::killerMinutes, 60'000)};
    died(wanted);
}

void KillerClips::died(uint64_t cause) noexcept {
    // Several threads may have asked for one clip at once.
    if (m_deathsInARow > 0 && cause == m_lastCause)
        return;
    m_lastCause = cause;
    if (++m_deathsInARow < deathsUntilPause)
        return;
    m_deathsInARow = 0;
    m_pauseUntil = inMilliseconds(vdPolicy::pauseSeconds, 1000);
}
