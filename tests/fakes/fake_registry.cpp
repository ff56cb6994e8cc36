#include "fake_platform.h"
#include "state/registry.h"

namespace fake {
namespace {

using platform::Hive;
namespace status = platform::status;

bool SameName(const std::wstring& a, const std::wstring& b) {
    return !core::NoCaseLess{}(a, b) && !core::NoCaseLess{}(b, a);
}

std::vector<std::wstring> Components(Hive hive, const std::wstring& key, bool view32) {
    std::vector<std::wstring> parts;
    if (!key.empty())
        for (auto& part : core::Split(key, L'\\'))
            if (!part.empty()) parts.push_back(part);
    if (view32 && hive == Hive::LocalMachine && !parts.empty() && SameName(parts[0], L"Software"))
        parts.insert(parts.begin() + 1, L"WOW6432Node");
    return parts;
}

const wchar_t* RootName(Hive hive) {
    switch (hive) {
        case Hive::LocalMachine: return L"HKLM";
        case Hive::CurrentUser: return L"HKCU";
        case Hive::ClassesRoot: return L"HKCR";
        case Hive::CurrentConfig: return L"HKCC";
        case Hive::Users: return L"HKU";
    }
    return L"";
}

bool Denied(Hive hive, const std::vector<std::wstring>& parts) {
    std::wstring path = RootName(hive);
    for (const auto& part : parts) path += L"\\" + part;
    return State().deniedKeys.count(path) > 0;
}

// Walks to the key, creating what is missing when asked to, as RegCreateKeyEx does: a new key
// below a volatile one must be volatile too.
std::uint32_t Walk(Hive hive, const std::wstring& key, bool view32, bool create, bool isVolatile,
                   RegistryKey*& out) {
    const auto parts = Components(hive, key, view32);
    if (Denied(hive, parts)) return status::kAccessDenied;
    RegistryKey* node = &State().hives[hive];
    for (const auto& part : parts) {
        RegistryKey* next = nullptr;
        for (auto& child : node->subkeys)
            if (SameName(child->name, part)) next = child.get();
        if (!next && !create) return status::kFileNotFound;
        if (!next) {
            constexpr std::uint32_t kChildMustBeVolatile = 1021;
            if (node->isVolatile && !isVolatile) return kChildMustBeVolatile;
            node->subkeys.push_back(std::make_unique<RegistryKey>());
            next = node->subkeys.back().get();
            next->name = part;
            next->isVolatile = isVolatile;
        }
        node = next;
    }
    out = node;
    return status::kSuccess;
}

std::uint32_t Open(Hive hive, const std::wstring& key, bool view32, RegistryKey*& out) {
    return Walk(hive, key, view32, false, false, out);
}

platform::RegistryValue* FindValue(RegistryKey& key, const std::wstring& name) {
    for (auto& [valueName, value] : key.values)
        if (SameName(valueName, name)) return &value;
    return nullptr;
}

}  // namespace

void SetRegistryValue(const std::wstring& path, const platform::RegistryValue& value) {
    const RegistryPath parts = SplitRegistryPath(path);
    if (parts.hive) platform::RegistrySetValue(*parts.hive, parts.key, parts.value, value, false, false);
}

void SetRegistryString(const std::wstring& path, const std::wstring& text) {
    SetRegistryValue(path, {platform::regtype::kSz, core::Utf16BytesFromWide(text, true)});
}

void SetRegistryDword(const std::wstring& path, std::uint32_t value) {
    SetRegistryValue(path, {platform::regtype::kDword,
                            {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
                             static_cast<std::uint8_t>(value >> 16),
                             static_cast<std::uint8_t>(value >> 24)}});
}

void CreateRegistryKey(const std::wstring& keyPath) {
    const RegistryPath parts = SplitRegistryPath(keyPath + L"\\x");
    if (parts.hive) platform::RegistryCreateKey(*parts.hive, parts.key, false);
}

std::optional<platform::RegistryValue> GetRegistryValue(const std::wstring& path) {
    const RegistryPath parts = SplitRegistryPath(path);
    platform::RegistryValue value;
    if (!parts.hive || platform::RegistryQueryValue(*parts.hive, parts.key, parts.value, false, value))
        return std::nullopt;
    return value;
}

bool IsVolatileKey(const std::wstring& keyPath) {
    const RegistryPath parts = SplitRegistryPath(keyPath + L"\\x");
    RegistryKey* key = nullptr;
    return parts.hive && !Open(*parts.hive, parts.key, false, key) && key->isVolatile;
}

}  // namespace fake

namespace platform {

std::uint32_t RegistryQueryValue(Hive hive, const std::wstring& key, const std::wstring& name,
                                 bool view32, RegistryValue& out) {
    fake::RegistryKey* node = nullptr;
    if (auto s = fake::Open(hive, key, view32, node)) return s;
    auto* value = fake::FindValue(*node, name);
    if (!value) return status::kFileNotFound;
    out = *value;
    return status::kSuccess;
}

std::uint32_t RegistrySetValue(Hive hive, const std::wstring& key, const std::wstring& name,
                               const RegistryValue& value, bool view32, bool volatileKey) {
    fake::RegistryKey* node = nullptr;
    if (auto s = fake::Walk(hive, key, view32, true, volatileKey, node)) return s;
    if (auto* existing = fake::FindValue(*node, name))
        *existing = value;
    else
        node->values.emplace_back(name, value);
    return status::kSuccess;
}

std::uint32_t RegistryCreateKey(Hive hive, const std::wstring& key, bool view32) {
    fake::RegistryKey* node = nullptr;
    return fake::Walk(hive, key, view32, true, false, node);
}

std::uint32_t RegistryDeleteValue(Hive hive, const std::wstring& key, const std::wstring& name,
                                  bool view32, bool& keyOpened) {
    fake::RegistryKey* node = nullptr;
    keyOpened = false;
    if (auto s = fake::Open(hive, key, view32, node)) return s;
    keyOpened = true;
    auto& values = node->values;
    for (auto it = values.begin(); it != values.end(); ++it) {
        if (fake::SameName(it->first, name)) {
            values.erase(it);
            return status::kSuccess;
        }
    }
    return status::kFileNotFound;
}

std::uint32_t RegistryEnumSubkeys(Hive hive, const std::wstring& key, bool view32,
                                  std::vector<std::wstring>& out) {
    out.clear();
    fake::RegistryKey* node = nullptr;
    if (auto s = fake::Open(hive, key, view32, node)) return s;
    for (const auto& child : node->subkeys) out.push_back(child->name);
    return status::kSuccess;
}

std::uint32_t RegistryEnumValues(Hive hive, const std::wstring& key, bool view32,
                                 std::vector<NamedRegistryValue>& out) {
    out.clear();
    fake::RegistryKey* node = nullptr;
    if (auto s = fake::Open(hive, key, view32, node)) return s;
    out = node->values;
    return status::kSuccess;
}

std::uint32_t RegistryOpenKey(Hive hive, const std::wstring& key, bool view32) {
    fake::RegistryKey* node = nullptr;
    return fake::Open(hive, key, view32, node);
}

std::uint32_t RegistryOpenKeyForRead(Hive hive, const std::wstring& key) {
    fake::RegistryKey* node = nullptr;
    return fake::Open(hive, key, false, node);
}

std::wstring ExpandEnvironment(const std::wstring& text) {
    std::wstring out;
    std::size_t i = 0;
    while (i < text.size()) {
        const auto open = text.find(L'%', i);
        const auto close = open == std::wstring::npos ? open : text.find(L'%', open + 1);
        if (close == std::wstring::npos) {
            out += text.substr(i);
            break;
        }
        out += text.substr(i, open - i);
        const std::wstring name = text.substr(open + 1, close - open - 1);
        auto it = fake::State().environment.find(name);
        out += it != fake::State().environment.end() ? it->second : text.substr(open, close - open + 1);
        i = close + 1;
    }
    return out;
}

}  // namespace platform
