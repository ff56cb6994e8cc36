#include "state/registry.h"

#include <array>

#include "platform/system.h"
#include "log/tool_log.h"

namespace {

using platform::Hive;
namespace regtype = platform::regtype;

std::optional<Hive> HiveFromRootName(const std::wstring& root) {
    for (const auto& entry : kRegistryRootNames)
        if (platform::EqualsIgnoreCase(root, entry.shortName)) return entry.hive;
    return std::nullopt;
}

template <typename Int>
Int LittleEndian(const std::vector<std::uint8_t>& data) {
    Int value = 0;
    for (std::size_t i = 0; i < sizeof(Int); ++i) value |= static_cast<Int>(data[i]) << (8 * i);
    return value;
}

std::wstring UpToFirstNul(std::wstring text) {
    const auto nul = text.find(L'\0');
    if (nul != std::wstring::npos) text.resize(nul);
    return text;
}

// The raw value a path names; nullopt for an unknown root or a query that fails.
std::optional<platform::RegistryValue> QueryValue(const std::wstring& path, bool view32) {
    const RegistryPath parts = SplitRegistryPath(path);
    if (!parts.hive) return std::nullopt;
    platform::RegistryValue raw;
    if (platform::RegistryQueryValue(*parts.hive, parts.key, parts.value, view32, raw) !=
        platform::status::kSuccess)
        return std::nullopt;
    return raw;
}

// A key path given without a value: append a dummy value segment so that the whole path is the key.
RegistryPath SplitKeyPath(const std::wstring& keyPath) {
    return SplitRegistryPath(core::PathJoin(keyPath, L"dummy"));
}

template <typename Int>
std::vector<std::uint8_t> LittleEndianBytes(Int value) {
    std::vector<std::uint8_t> bytes(sizeof(Int));
    for (std::size_t i = 0; i < sizeof(Int); ++i)
        bytes[i] = static_cast<std::uint8_t>((static_cast<std::uint64_t>(value) >> (8 * i)) & 0xFF);
    return bytes;
}

// Accepts the signed and the unsigned range of the width, as the registry editor does.
template <typename Unsigned, typename Signed>
std::optional<std::vector<std::uint8_t>> IntegerBytes(const std::wstring& text) {
    std::int64_t wide = 0;
    if (core::ParseInt64(text, wide)) {
        if constexpr (sizeof(Unsigned) == 4) {
            if (wide < INT32_MIN || wide > static_cast<std::int64_t>(UINT32_MAX)) return std::nullopt;
        }
        return LittleEndianBytes(static_cast<Unsigned>(wide));
    }
    if constexpr (sizeof(Unsigned) == 8) {
        // Unsigned 64-bit values above INT64_MAX.
        std::uint64_t value = 0;
        if (text.empty()) return std::nullopt;
        for (wchar_t c : text) {
            if (c < L'0' || c > L'9') return std::nullopt;
            const std::uint64_t digit = static_cast<std::uint64_t>(c - L'0');
            if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
            value = value * 10 + digit;
        }
        return LittleEndianBytes(value);
    }
    return std::nullopt;
}

}  // namespace

RegistryPath SplitRegistryPath(const std::wstring& path) {
    RegistryPath result;
    const auto first = path.find(L'\\');
    if (first == std::wstring::npos) return result;
    const auto last = path.rfind(L'\\');
    result.hive = HiveFromRootName(path.substr(0, first));
    if (last > first) result.key = path.substr(first + 1, last - first - 1);
    result.value = path.substr(last + 1);
    return result;
}

std::wstring RootName(platform::Hive hive) {
    for (const auto& entry : kRegistryRootNames)
        if (entry.hive == hive) return entry.shortName;
    return {};
}

std::wstring CurrentProductRoot() { return L"HKLM\\Software\\Quorvane\\Lumenar"; }
std::wstring LegacyProductRoot() { return L"HKLM\\Software\\Tessix, Inc.\\Tessix KDX"; }

bool ParseBoolText(const std::wstring& text) {
    for (const wchar_t* word : {L"true", L"yes", L"on"})
        if (platform::EqualsIgnoreCase(text, word)) return true;
    // Any decimal integer other than zero, however long.
    std::size_t i = (!text.empty() && (text[0] == L'-' || text[0] == L'+')) ? 1 : 0;
    if (i == text.size()) return false;
    bool nonZero = false;
    for (; i < text.size(); ++i) {
        if (text[i] < L'0' || text[i] > L'9') return false;
        nonZero = nonZero || text[i] != L'0';
    }
    return nonZero;
}

std::optional<std::wstring> RegistryValueText(const platform::RegistryValue& value) {
    switch (value.type) {
        case regtype::kDword:
            if (value.data.size() < 4) return std::nullopt;
            return std::to_wstring(LittleEndian<std::uint32_t>(value.data));
        case regtype::kQword:
            if (value.data.size() < 8) return std::nullopt;
            return std::to_wstring(LittleEndian<std::uint64_t>(value.data));
        case regtype::kSz:
            return UpToFirstNul(core::WideFromUtf16Bytes(value.data));
        case regtype::kExpandSz:
            return platform::ExpandEnvironment(UpToFirstNul(core::WideFromUtf16Bytes(value.data)));
        case regtype::kMultiSz: {
            std::wstring text = core::WideFromUtf16Bytes(value.data);
            while (!text.empty() && text.back() == L'\0') text.pop_back();
            return text;
        }
        default:
            return std::nullopt;
    }
}

RegReadResult RegReadValue(const std::wstring& path, std::int32_t acceptedType, bool view32) {
    RegReadResult result;
    const auto raw = QueryValue(path, view32);
    if (!raw) return result;
    if (acceptedType != kAnyRegistryType && static_cast<std::uint32_t>(acceptedType) != raw->type)
        return result;
    result.type = static_cast<std::int32_t>(raw->type);
    // A value of a type that makes no text (REG_BINARY, say) still exists: it reports its type
    // with an empty text.
    result.text = RegistryValueText(*raw).value_or(L"");
    return result;
}

std::wstring RegReadString(const std::wstring& path, const std::wstring& defaultText, bool view32) {
    const auto raw = QueryValue(path, view32);
    if (!raw) return defaultText;
    return RegistryValueText(*raw).value_or(defaultText);
}

bool RegWriteValue(const std::wstring& path, const std::wstring& text, std::uint32_t type,
                   bool view32) {
    const RegistryPath parts = SplitRegistryPath(path);
    if (!parts.hive) return false;
    platform::RegistryValue raw;
    if (type == regtype::kDword || type == regtype::kQword) {
        auto bytes = type == regtype::kDword ? IntegerBytes<std::uint32_t, std::int32_t>(text)
                                             : IntegerBytes<std::uint64_t, std::int64_t>(text);
        if (!bytes) return false;
        raw.type = type;
        raw.data = std::move(*bytes);
    } else {
        raw.type = regtype::kSz;
        raw.data = core::Utf16BytesFromWide(text, true);
    }
    return platform::RegistrySetValue(*parts.hive, parts.key, parts.value, raw, view32, false) ==
           platform::status::kSuccess;
}

bool RegWriteVolatileString(const std::wstring& path, const std::wstring& text) {
    const RegistryPath parts = SplitRegistryPath(path);
    if (!parts.hive) return false;
    // The system makes every key it has to create on the way volatile too; a product key made
    // volatile would refuse the update key's non-volatile values. Create the parents first.
    const auto cut = parts.key.rfind(L'\\');
    if (cut != std::wstring::npos &&
        platform::RegistryCreateKey(*parts.hive, parts.key.substr(0, cut), false) !=
            platform::status::kSuccess)
        return false;
    platform::RegistryValue raw{regtype::kSz, core::Utf16BytesFromWide(text, true)};
    return platform::RegistrySetValue(*parts.hive, parts.key, parts.value, raw, false, true) ==
           platform::status::kSuccess;
}

std::vector<std::wstring> RegEnumSubkeys(const std::wstring& keyPath, bool view32) {
    std::vector<std::wstring> names;
    const RegistryPath parts = SplitKeyPath(keyPath);
    if (!parts.hive) return names;
    if (platform::RegistryEnumSubkeys(*parts.hive, parts.key, view32, names) !=
        platform::status::kSuccess)
        names.clear();
    return names;
}

RegistryValueMap RegReadAllValues(const std::wstring& keyPath, bool view32) {
    RegistryValueMap values;
    const RegistryPath parts = SplitKeyPath(keyPath);
    if (!parts.hive) return values;
    std::vector<platform::NamedRegistryValue> raw;
    if (platform::RegistryEnumValues(*parts.hive, parts.key, view32, raw) !=
        platform::status::kSuccess)
        return values;
    for (const auto& [name, value] : raw) {
        // Values that make no text (binary data) are read as empty text rather than dropped, so
        // that a reader sees the name exists.
        values.emplace(name, RegistryValueText(value).value_or(L""));
    }
    return values;
}

std::pair<bool, std::wstring> RegKeyExistsInMachineOrUser(platform::Hive hive,
                                                          const std::wstring& keyPath) {
    const bool exists =
        platform::RegistryOpenKey(hive, keyPath, false) == platform::status::kSuccess;
    return {exists, hive == Hive::LocalMachine ? L"HKLM" : L"HKCU"};
}

bool Util_DeleteRegistryIfExists(const std::wstring& path) {
    static const wchar_t* const kFunction = L"Util_DeleteRegistryIfExists";
    const RegistryPath parts = SplitRegistryPath(path);
    bool keyOpened = false;
    std::uint32_t status = platform::status::kFileNotFound;
    if (parts.hive)
        status = platform::RegistryDeleteValue(*parts.hive, parts.key, parts.value, false, keyOpened);
    if (!keyOpened || status == platform::status::kFileNotFound) {
        // Nothing to delete: the key or the value was never there.
        LogF(L"%s: Registry key %s doesn't exist, skip deletion", kFunction, path);
        return true;
    }
    if (status != platform::status::kSuccess) {
        LogF(L"%s: Registry value %s couldn't be deleted", kFunction, path);
        return false;
    }
    LogF(L"%s: Deleted registry key - %s", kFunction, path);
    return true;
}
