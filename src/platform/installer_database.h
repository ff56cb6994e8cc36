#pragma once
// Windows Installer database queries (msi.dll). Both return the Windows Installer status code:
// 0 on success, 259 (ERROR_NO_MORE_ITEMS) when no product is related (Wine also for a malformed
// code, where Windows says 87), 1605 (ERROR_UNKNOWN_PRODUCT), 1608 (ERROR_UNKNOWN_PROPERTY),
// 234 (ERROR_MORE_DATA) when the value does not fit.
#include <cstdint>
#include <string>

namespace platform {

// MsiEnumRelatedProductsW(upgradeCode, 0, 0, ...): only the first related product (index 0).
std::uint32_t FirstRelatedProduct(const std::wstring& upgradeCode, std::wstring& productCode);

// MsiGetProductInfoW(productCode, "VersionString", ...) into a buffer of 256 characters.
std::uint32_t ProductVersionString(const std::wstring& productCode, std::wstring& version);

}  // namespace platform
