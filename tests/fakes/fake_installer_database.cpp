#include "fake_platform.h"
#include "platform/installer_database.h"

namespace platform {
namespace {
constexpr std::uint32_t kNoMoreItems = 259;
constexpr std::uint32_t kUnknownProduct = 1605;
}  // namespace

std::uint32_t FirstRelatedProduct(const std::wstring& upgradeCode, std::wstring& productCode) {
    productCode.clear();
    const auto& products = fake::State().installedProducts;
    auto it = products.find(upgradeCode);
    if (it == products.end()) return kNoMoreItems;
    productCode = it->second.productCode;
    return status::kSuccess;
}

std::uint32_t ProductVersionString(const std::wstring& productCode, std::wstring& version) {
    version.clear();
    for (const auto& [upgradeCode, product] : fake::State().installedProducts) {
        if (!platform::EqualsIgnoreCase(product.productCode, productCode)) continue;
        if (product.infoStatus) return product.infoStatus;
        version = product.versionString;
        return status::kSuccess;
    }
    return kUnknownProduct;
}

}  // namespace platform
