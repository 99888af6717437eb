#include "KillerClips.h"

#include <algorithm>
#include <iterator>

#include "GuardFailures.h"
#include "Transport.h"
#include "Utils/vdPolicy.h"

namespace {
uint64_t hashOfPath(const std::wstring& path) {
    return transportHash(path.data(), path.size() * sizeof(wchar_t));
}

uint64_t inMilliseconds(vdPolicy policy, uint64_t unit) {
    return GetTickCount64() + policyValue(policy) * unit;
}
} // namespace

HRESULT KillerClips::refusal(const std::wstring& path, uint64_t& killerState) const noexcept {
    killerState = 0;
    const uint64_t now = GetTickCount64();
    if (now < m_pauseUntil)
        return GUARD_E_PAUSE;
    const uint64_t wanted = hashOfPath(path);
    const auto* const killer =
        std::find_if(std::begin(m_killers), std::end(m_killers),
                     [&](const Killer& known) { return known.path == wanted && now < known.until; });
    if (killer == std::end(m_killers))
        return S_OK;
    killerState = killer->state;
    return killerState == 0 ? GUARD_E_CLIP_KILLS : S_OK;
}

void KillerClips::killed(const std::wstring& path, uint64_t state) noexcept {
    const uint64_t wanted = hashOfPath(path);
    // The clip's own entry, else the one that would end first; a free one has ended long ago.
    auto* const place =
        std::min_element(std::begin(m_killers), std::end(m_killers), [&](const Killer& a, const Killer& b) {
            return a.path == wanted || (b.path != wanted && a.until < b.until);
        });
    *place = {wanted, state, inMilliseconds(vdPolicy::killerMinutes, 60'000)};
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
