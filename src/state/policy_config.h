#pragma once
// Configuration reads that honour group policy, including policies pushed for the former product.
//
// A setting stored at HKLM\Software\Quorvane\Lumenar\<key>\<value> may be overridden by policy:
//   1. HKLM\Software\Policies\Quorvane\Lumenar\<key>\<value>        (policy, current product)
//   2. HKLM\Software\Policies\Tessix, Inc.\<legacy subkey>\<tail>    (policy, former product;
//      only while FallbackToLegacyGPO is on and the component has a row in the legacy map)
//   3. HKLM\Software\Quorvane\Lumenar\<key>\<value>                  (the setting itself)
// For HKCU paths the machine-wide policy keys and the machine-wide setting are tried as well.
//
// Registry values read here:
//   HKLM\Software\Policies\Quorvane\Lumenar\FallbackToLegacyGPO   text  no default (empty: ask
//                                                                  the next one)
//   HKLM\Software\Quorvane\Lumenar\FallbackToLegacyGPO            text  default "true"
// The switch is on when the text is "true", "yes", "on" (any case) or a non-zero number, so the
// former product's policies keep working unless an administrator turns them off.
#include <cstdint>
#include <string>
#include <string_view>

namespace CORE {

inline constexpr std::wstring_view kCurrentProductPath = L"Software\\Quorvane\\Lumenar";
inline constexpr std::wstring_view kLegacyPoliciesVendorPath = L"Software\\Policies\\Tessix, Inc.";
inline constexpr std::wstring_view kLegacyProductSubkey = L"Tessix KDX";

// The text before and after the first backslash; without a backslash the whole text is the head
// and the tail is empty.
std::wstring PathHead(std::wstring_view path);
std::wstring PathTail(std::wstring_view path);

// "Software\X\Y" -> "Software\Policies\X\Y": the policy key that overrides a configuration key.
std::wstring PolicyPath(std::wstring_view keyPath);

// The former product's policy key for a key under kCurrentProductPath (hive-relative), or empty
// when the key lies elsewhere or its component has no former equivalent.
std::wstring LegacyPolicyPath(std::wstring_view keyPath);

// Whether the former product's policy keys are consulted (the FallbackToLegacyGPO switch).
bool IsFallbackToLegacyGPOEnabled();

// Reads "ROOT\key\value" from the first place that has it, in the order above. Returns 0 with the
// value's text (converted as the registry helpers do) and, when asked, the place it came from
// ("HKLM\Software\Policies\...\value"). Otherwise returns the last registry status, stores it as
// the thread's last error and empties value; a path that does not split gives 3 (path not found).
std::uint32_t ReadWithLegacyFallback(const std::wstring& path, std::wstring& value,
                                     bool view32 = false, std::wstring* place = nullptr);

// The value's text, or defaultText when no place has it.
std::wstring ReadStringWithLegacyFallback(const std::wstring& path,
                                          const std::wstring& defaultText);

}  // namespace CORE
