#include "platform/installer_database.h"

#include <windows.h>

#include <msi.h>

#include <iterator>

namespace platform {

std::uint32_t FirstRelatedProduct(const std::wstring& upgradeCode, std::wstring& productCode) {
    wchar_t buffer[39] = {};  // a GUID in braces and its terminator
    const UINT status = ::MsiEnumRelatedProductsW(upgradeCode.c_str(), 0, 0, buffer);
    productCode = status == ERROR_SUCCESS ? std::wstring(buffer) : std::wstring();
    return status;
}

std::uint32_t ProductVersionString(const std::wstring& productCode, std::wstring& version) {
    wchar_t buffer[256] = {};
    DWORD length = static_cast<DWORD>(std::size(buffer));
    const UINT status =
        ::MsiGetProductInfoW(productCode.c_str(), INSTALLPROPERTY_VERSIONSTRING, buffer, &length);
    version = status == ERROR_SUCCESS ? std::wstring(buffer) : std::wstring();
    return status;
}

}  // namespace platform
