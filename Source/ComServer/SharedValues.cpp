#include "SharedValues.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <tuple>
#include <vector>

namespace {
// What is remembered of each value, in a key of its name.
constexpr wchar_t keyName[] = L"Key";
constexpr wchar_t valueName[] = L"Value";
constexpr wchar_t oursName[] = L"Ours";
constexpr wchar_t beforeName[] = L"Before"; ///< missing where nothing stood
constexpr wchar_t levelsName[] = L"Levels"; ///< how many keys on the path were there

class OpenKey {
public:
    OpenKey() = default;
    ~OpenKey() {
        if (m_key != nullptr)
            RegCloseKey(m_key);
    }
    OpenKey(const OpenKey&) = delete;
    OpenKey& operator=(const OpenKey&) = delete;
    LSTATUS open(HKEY root, const std::wstring& path, REGSAM access) {
        return RegOpenKeyExW(root, path.c_str(), 0, access, &m_key);
    }
    LSTATUS create(HKEY root, const std::wstring& path) {
        return RegCreateKeyExW(root, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                               KEY_QUERY_VALUE | KEY_SET_VALUE, nullptr, &m_key, nullptr);
    }
    HKEY get() const { return m_key; }

private:
    HKEY m_key = nullptr;
};

/// A value as it is, of whatever type.
struct RawValue {
    DWORD type = REG_NONE;
    std::vector<BYTE> bytes;
    bool operator==(const RawValue&) const = default;
};

RawValue rawText(const std::wstring& text) {
    const auto* const first = reinterpret_cast<const BYTE*>(text.c_str());
    // Of Windows' folder; a percent sign elsewhere belongs to a folder's name.
    const DWORD type = text.starts_with(L"%SystemRoot%\\") ? REG_EXPAND_SZ : REG_SZ;
    return {type, {first, first + (text.size() + 1) * sizeof(wchar_t)}};
}

RawValue rawValue(const std::variant<std::wstring, DWORD>& data) {
    if (const auto* const text = std::get_if<std::wstring>(&data))
        return rawText(*text);
    const auto* const number = reinterpret_cast<const BYTE*>(&std::get<DWORD>(data));
    return {REG_DWORD, {number, number + sizeof(DWORD)}};
}

std::optional<RawValue> readValue(HKEY key, const wchar_t* name) {
    RawValue value;
    DWORD size = 0;
    if (RegQueryValueExW(key, name, nullptr, &value.type, nullptr, &size) != ERROR_SUCCESS)
        return std::nullopt;
    value.bytes.resize(size);
    if (RegQueryValueExW(key, name, nullptr, &value.type, value.bytes.data(), &size) != ERROR_SUCCESS)
        return std::nullopt;
    value.bytes.resize(size);
    return value;
}

LSTATUS writeValue(HKEY key, const wchar_t* name, const RawValue& value) {
    return RegSetValueExW(key, name, 0, value.type, value.bytes.data(),
                          static_cast<DWORD>(value.bytes.size()));
}

std::wstring readText(HKEY key, const wchar_t* name) {
    const std::optional<RawValue> value = readValue(key, name);
    if (!value || value->type != REG_SZ)
        return {};
    const std::wstring_view text(reinterpret_cast<const wchar_t*>(value->bytes.data()),
                                 value->bytes.size() / sizeof(wchar_t));
    return std::wstring(text.substr(0, text.find(L'\0')));
}

DWORD readNumber(HKEY key, const wchar_t* name) {
    DWORD number = 0;
    DWORD size = sizeof number;
    RegGetValueW(key, nullptr, name, RRF_RT_REG_DWORD, nullptr, &number, &size);
    return number;
}

/// Calls `work`, which gives an LSTATUS, with each key directly under `path`; the first failure is the
/// result.
template <class Work>
LSTATUS forEachKey(HKEY root, const std::wstring& path, Work work) {
    OpenKey all;
    if (all.open(root, path, KEY_ENUMERATE_SUB_KEYS) != ERROR_SUCCESS)
        return ERROR_SUCCESS; // none
    LSTATUS result = ERROR_SUCCESS;
    wchar_t name[MAX_PATH];
    for (DWORD i = 0, length = MAX_PATH;
         RegEnumKeyExW(all.get(), i, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = MAX_PATH) {
        OpenKey one;
        LSTATUS status = one.open(all.get(), name, KEY_QUERY_VALUE);
        if (status == ERROR_SUCCESS)
            status = work(one.get());
        if (result == ERROR_SUCCESS)
            result = status;
    }
    return result;
}

/// The place behind the path's first `levels` keys.
size_t endOfLevel(const std::wstring& path, DWORD levels) {
    size_t end = 0;
    for (DWORD i = 0; i < levels && end != std::wstring::npos; ++i)
        end = path.find(L'\\', end == 0 ? 0 : end + 1);
    return end;
}

DWORD levelsOf(const std::wstring& path) {
    DWORD levels = 1;
    for (const wchar_t c : path)
        levels += c == L'\\';
    return levels;
}

DWORD existingLevels(HKEY root, const std::wstring& path) {
    DWORD levels = levelsOf(path);
    for (; levels > 0; --levels) {
        OpenKey key;
        if (key.open(root, path.substr(0, endOfLevel(path, levels)), KEY_QUERY_VALUE) == ERROR_SUCCESS)
            break;
    }
    return levels;
}

void deleteEmptyKeys(HKEY root, const std::wstring& path, DWORD levelsBefore) {
    for (DWORD level = levelsOf(path); level > levelsBefore; --level) {
        const std::wstring name = path.substr(0, endOfLevel(path, level));
        DWORD keys = 0;
        DWORD values = 0;
        {
            OpenKey key;
            if (key.open(root, name, KEY_QUERY_VALUE) != ERROR_SUCCESS)
                continue;
            RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values, nullptr,
                             nullptr, nullptr, nullptr);
        }
        if (keys != 0 || values != 0 || RegDeleteKeyW(root, name.c_str()) != ERROR_SUCCESS)
            return;
    }
}

/// What stands there now; without value when nothing does.
std::optional<RawValue> current(HKEY root, const std::wstring& path, const wchar_t* name) {
    OpenKey key;
    if (key.open(root, path, KEY_QUERY_VALUE) != ERROR_SUCCESS)
        return std::nullopt;
    return readValue(key.get(), name);
}

/// How many keys on `path` were there before any of ours.
DWORD foreignLevels(HKEY root, const std::wstring& memory, const std::wstring& path) {
    DWORD levels = existingLevels(root, path);
    forEachKey(root, memory, [&](HKEY one) {
        const std::wstring other = readText(one, keyName);
        const DWORD before = readNumber(one, levelsName);
        const size_t firstOfOurs = endOfLevel(path, before + 1);
        if (!other.empty() && other.compare(0, endOfLevel(other, before + 1), path, 0, firstOfOurs) == 0)
            levels = std::min(levels, before);
        return ERROR_SUCCESS;
    });
    return levels;
}

LSTATUS remember(HKEY memory, const SharedValue& value, DWORD levels, const std::optional<RawValue>& before) {
    LSTATUS status = writeValue(memory, keyName, rawText(value.key));
    if (status == ERROR_SUCCESS && value.value != nullptr)
        status = writeValue(memory, valueName, rawText(value.value));
    if (status == ERROR_SUCCESS && before)
        status = writeValue(memory, beforeName, *before);
    if (status == ERROR_SUCCESS && !before)
        RegDeleteValueW(memory, beforeName);
    if (status == ERROR_SUCCESS)
        status = RegSetValueExW(memory, levelsName, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&levels),
                                sizeof levels);
    return status;
}

LSTATUS write(HKEY root, const std::wstring& allMemory, const SharedValue& value) {
    const std::wstring memoryPath = allMemory + L'\\' + value.name;
    const std::optional<RawValue> before = current(root, value.key, value.value);
    const std::optional<RawValue> ours = current(root, memoryPath, oursName);
    const bool isOurs = before && before == ours;
    if (value.onlyWhereNone && before && !isOurs)
        return ERROR_SUCCESS;

    const DWORD levels = foreignLevels(root, allMemory, value.key);
    OpenKey memory;
    LSTATUS status = memory.create(root, memoryPath);
    if (status == ERROR_SUCCESS && !isOurs)
        status = remember(memory.get(), value, levels, before);
    const RawValue data = rawValue(value.data);
    if (status == ERROR_SUCCESS)
        status = writeValue(memory.get(), oursName, data);
    OpenKey key;
    if (status == ERROR_SUCCESS)
        status = key.create(root, value.key);
    return status == ERROR_SUCCESS ? writeValue(key.get(), value.value, data) : status;
}

LSTATUS restore(HKEY root, HKEY memory) {
    const std::wstring path = readText(memory, keyName);
    const std::optional<RawValue> named = readValue(memory, valueName);
    const std::wstring name = readText(memory, valueName);
    const wchar_t* const value = named ? name.c_str() : nullptr;
    const std::optional<RawValue> now = current(root, path, value);
    const std::optional<RawValue> ours = readValue(memory, oursName);
    if (ours && !now) // the key was made, and writing into it failed
        deleteEmptyKeys(root, path, readNumber(memory, levelsName));
    if (path.empty() || !now || now != ours)
        return ERROR_SUCCESS; // somebody else's by now

    OpenKey key;
    LSTATUS status = key.open(root, path, KEY_SET_VALUE);
    if (status != ERROR_SUCCESS)
        return status;
    if (const std::optional<RawValue> before = readValue(memory, beforeName))
        return writeValue(key.get(), value, *before);
    status = RegDeleteValueW(key.get(), value);
    if (status == ERROR_SUCCESS)
        deleteEmptyKeys(root, path, readNumber(memory, levelsName));
    return status;
}
} // namespace

HRESULT writeSharedValues(HKEY root, const std::wstring& memory, std::span<const SharedValue> values) {
    for (const SharedValue& value : values)
        if (const LSTATUS status = write(root, memory, value); status != ERROR_SUCCESS)
            return HRESULT_FROM_WIN32(status);
    return S_OK;
}

HRESULT restoreSharedValues(HKEY root, const std::wstring& memory) {
    LSTATUS status = forEachKey(root, memory, [root](HKEY one) { return restore(root, one); });
    if (status == ERROR_SUCCESS)
        status = RegDeleteTreeW(root, memory.c_str());
    constexpr DWORD softwareLevel = 1;
    if (status == ERROR_SUCCESS)
        deleteEmptyKeys(root, memory, softwareLevel);
    return status == ERROR_FILE_NOT_FOUND ? S_OK : HRESULT_FROM_WIN32(status);
}
