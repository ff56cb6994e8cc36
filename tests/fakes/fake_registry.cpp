#include "fake_platform.h"
#include "state/registry.h"

namespace fake {
namespace {

using platform::Hive;
namespace status = platform::status;

std::wstring KeyPath(Hive hive, const std::wstring& key, bool view32) {
    std::wstring path = RootName(hive);
    for (const auto& part : core::Split(key, L'\\')) {
        if (part.empty()) continue;
        path += L"\\" + part;
        if (view32 && platform::EqualsIgnoreCase(path, L"HKLM\\Software"))
            path += L"\\WOW6432Node";
    }
    return path;
}

// Opens the key, or creates what is missing as RegCreateKeyEx does: below a volatile key only a
// volatile one.
std::uint32_t Walk(Hive hive, const std::wstring& key, bool view32, RegistryKey*& out,
                   bool create = false, bool isVolatile = false) {
    const std::wstring path = KeyPath(hive, key, view32);
    if (State().deniedKeys.count(path)) return status::kAccessDenied;
    auto& keys = State().hives;
    out = &keys[RootName(hive)];
    for (auto cut = path.find(L'\\'); cut != std::wstring::npos;) {
        cut = path.find(L'\\', cut + 1);
        auto it = keys.find(path.substr(0, cut));
        if (it == keys.end() && !create) return status::kFileNotFound;
        if (it == keys.end() && out->isVolatile && !isVolatile) return 1021;  // ERROR_CHILD_MUST_BE_VOLATILE
        if (it == keys.end())
            it = keys.emplace(path.substr(0, cut), RegistryKey{keys.size(), isVolatile, {}}).first;
        out = &it->second;
    }
    return status::kSuccess;
}

platform::RegistryValue* FindValue(RegistryKey& key, const std::wstring& name) {
    for (auto& [valueName, value] : key.values)
        if (platform::EqualsIgnoreCase(valueName, name)) return &value;
    return nullptr;
}

}  // namespace

void SetRegistryValue(const std::wstring& path, const platform::RegistryValue& value) {
    const RegistryPath p = SplitRegistryPath(path);
    if (p.hive) platform::RegistrySetValue(*p.hive, p.key, p.value, value, false, false);
}

void SetRegistryString(const std::wstring& path, const std::wstring& text) {
    SetRegistryValue(path, {platform::regtype::kSz, core::Utf16BytesFromWide(text, true)});
}

void SetRegistryDword(const std::wstring& path, std::uint32_t v) {
    SetRegistryValue(path, {platform::regtype::kDword,
                            {std::uint8_t(v), std::uint8_t(v >> 8), std::uint8_t(v >> 16),
                             std::uint8_t(v >> 24)}});
}

void CreateRegistryKey(const std::wstring& keyPath) {
    const RegistryPath p = SplitRegistryPath(keyPath + L"\\x");
    if (p.hive) platform::RegistryCreateKey(*p.hive, p.key, false);
}

std::optional<platform::RegistryValue> GetRegistryValue(const std::wstring& path) {
    const RegistryPath p = SplitRegistryPath(path);
    platform::RegistryValue value;
    if (!p.hive || platform::RegistryQueryValue(*p.hive, p.key, p.value, false, value))
        return std::nullopt;
    return value;
}

bool IsVolatileKey(const std::wstring& keyPath) {
    const RegistryPath p = SplitRegistryPath(keyPath + L"\\x");
    RegistryKey* key = nullptr;
    return p.hive && !Walk(*p.hive, p.key, false, key) && key->isVolatile;
}

}  // namespace fake

namespace platform {

std::uint32_t RegistryQueryValue(Hive hive, const std::wstring& key, const std::wstring& name,
                                 bool view32, RegistryValue& out) {
    fake::RegistryKey* node = nullptr;
    if (auto s = fake::Walk(hive, key, view32, node)) return s;
    auto* value = fake::FindValue(*node, name);
    if (!value) return status::kFileNotFound;
    out = *value;
    return status::kSuccess;
}

std::uint32_t RegistrySetValue(Hive hive, const std::wstring& key, const std::wstring& name,
                               const RegistryValue& value, bool view32, bool volatileKey) {
    fake::RegistryKey* node = nullptr;
    if (auto s = fake::Walk(hive, key, view32, node, true, volatileKey)) return s;
    if (auto* existing = fake::FindValue(*node, name)) *existing = value;
    else node->values.emplace_back(name, value);
    return status::kSuccess;
}

std::uint32_t RegistryCreateKey(Hive hive, const std::wstring& key, bool view32) {
    fake::RegistryKey* node = nullptr;
    return fake::Walk(hive, key, view32, node, true);
}

std::uint32_t RegistryDeleteValue(Hive hive, const std::wstring& key, const std::wstring& name,
                                  bool view32, bool& keyOpened) {
    fake::RegistryKey* node = nullptr;
    keyOpened = false;
    if (auto s = fake::Walk(hive, key, view32, node)) return s;
    keyOpened = true;
    const auto same = [&](const NamedRegistryValue& v) { return EqualsIgnoreCase(v.first, name); };
    return std::erase_if(node->values, same) ? status::kSuccess : status::kFileNotFound;
}

std::uint32_t RegistryEnumSubkeys(Hive hive, const std::wstring& key, bool view32,
                                  std::vector<std::wstring>& out) {
    out.clear();
    fake::RegistryKey* node = nullptr;
    if (auto s = fake::Walk(hive, key, view32, node)) return s;
    const std::wstring parent = fake::KeyPath(hive, key, view32);
    std::map<std::size_t, std::wstring> found;
    for (const auto& [path, child] : fake::State().hives) {
        const auto cut = path.rfind(L'\\');
        if (cut != std::wstring::npos && EqualsIgnoreCase(path.substr(0, cut), parent))
            found[child.created] = path.substr(cut + 1);
    }
    for (auto& [created, name] : found) out.push_back(name);
    return status::kSuccess;
}

std::uint32_t RegistryEnumValues(Hive hive, const std::wstring& key, bool view32,
                                 std::vector<NamedRegistryValue>& out) {
    out.clear();
    fake::RegistryKey* node = nullptr;
    if (auto s = fake::Walk(hive, key, view32, node)) return s;
    out = node->values;
    return status::kSuccess;
}

std::uint32_t RegistryOpenKey(Hive hive, const std::wstring& key, bool view32) {
    fake::RegistryKey* node = nullptr;
    return fake::Walk(hive, key, view32, node);
}

std::uint32_t RegistryOpenKeyForRead(Hive hive, const std::wstring& key) {
    return RegistryOpenKey(hive, key, false);
}

// Only the variables a test sets; any other %NAME% stays as it is, as the system leaves it.
std::wstring ExpandEnvironment(const std::wstring& text) {
    std::wstring out = text;
    for (const auto& [name, value] : fake::State().environment) {
        const std::wstring variable = L"%" + name + L"%";
        for (auto at = out.find(variable); at != std::wstring::npos;
             at = out.find(variable, at + value.size()))
            out.replace(at, variable.size(), value);
    }
    return out;
}

}  // namespace platform
