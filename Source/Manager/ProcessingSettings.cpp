#include "ProcessingSettings.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "ProcessingAttributes.h"

namespace {
template <std::size_t size>
bool same(const char (&a)[size], const char (&b)[size]) {
    return std::strncmp(a, b, size) == 0;
}
template <class Number>
bool same(const Number& a, const Number& b) {
    return a == b;
}

template <class Settings, class Rows>
bool sameIn(const Rows& rows, const Settings& a, const Settings& b, bool withToneCurve) {
    return std::ranges::all_of(rows, [&](const auto& row) {
        return (row.isOfToneCurve && !withToneCurve) ||
               std::visit([&](auto field) { return same(a.*field, b.*field); }, row.field);
    });
}
} // namespace

bool hasCustomGamma(const brClipProcessingSettings& settings) {
    return std::string_view(settings.gamma, strnlen(settings.gamma, sizeof settings.gamma)) == brCustomGamma;
}

bool sameSettings(const brClipProcessingSettings& a, const brClipProcessingSettings& b) {
    return sameIn(brClipSettings, a, b, hasCustomGamma(a));
}

bool sameSettings(const brFrameProcessingSettings& a, const brFrameProcessingSettings& b) {
    return sameIn(brFrameSettings, a, b, true);
}
