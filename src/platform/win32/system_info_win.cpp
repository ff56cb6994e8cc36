#include "platform/system_info.h"

#include <windows.h>

namespace platform {

std::uint16_t NativeProcessorArchitecture() {
    SYSTEM_INFO info{};
    ::GetNativeSystemInfo(&info);
    return info.wProcessorArchitecture;
}

}  // namespace platform
