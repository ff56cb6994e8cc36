#include "agent/error_text.h"

#include "core/format.h"
#include "core/text.h"
#include "platform/system.h"

std::wstring ErrorCodeText(std::uint32_t code) {
    const std::wstring number =
        code < 0x80000000u ? core::Format(L"%u", code) : core::Format(L"0x%016X", code);
    return number + L" (" + core::Trim(platform::SystemMessage(code)) + L")";
}
