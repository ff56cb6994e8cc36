#include "platform/win32/security_win.h"

#include <sddl.h>

#include "platform/win32/handles.h"

namespace platform::win32 {
namespace {

bool IsProcessUser(PSID sid) {
    HANDLE raw = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &raw)) return false;
    const UniqueKernelHandle token(raw);
    alignas(TOKEN_USER) BYTE buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    if (!::GetTokenInformation(token.get(), TokenUser, buffer, sizeof(buffer), &size)) return false;
    return ::EqualSid(sid, reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid);
}

OwnerKind KindOf(PSID sid) {
    if (::IsWellKnownSid(sid, WinLocalSystemSid)) return OwnerKind::kSystem;
    if (::IsWellKnownSid(sid, WinBuiltinAdministratorsSid)) return OwnerKind::kAdministrators;
    return IsProcessUser(sid) ? OwnerKind::kThisAccount : OwnerKind::kOtherAccount;
}

// "DOMAIN\name" for the log; the SID as text when the account has no name (deleted, remote).
std::wstring AccountOf(PSID sid) {
    wchar_t name[256], domain[256];
    DWORD nameSize = 256, domainSize = 256;
    SID_NAME_USE use{};
    if (::LookupAccountSidW(nullptr, sid, name, &nameSize, domain, &domainSize, &use))
        return domainSize ? std::wstring(domain) + L"\\" + name : std::wstring(name);
    wchar_t* text = nullptr;
    if (!::ConvertSidToStringSidW(sid, &text)) return {};
    const UniqueLocal keeper(text);
    return text;
}

}  // namespace

ObjectOwner OwnerOf(HANDLE handle, SE_OBJECT_TYPE type) {
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD status = ::GetSecurityInfo(handle, type, OWNER_SECURITY_INFORMATION, &owner,
                                           nullptr, nullptr, nullptr, &descriptor);
    const UniqueLocal keeper(descriptor);
    if (status != ERROR_SUCCESS || owner == nullptr) return {};
    return {KindOf(owner), AccountOf(owner)};
}

}  // namespace platform::win32
