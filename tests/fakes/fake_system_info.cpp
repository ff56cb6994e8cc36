#include "fake_platform.h"
#include "platform/system_info.h"

namespace platform {

std::uint16_t NativeProcessorArchitecture() {
    return fake::State().nativeArchitecture;
}

}  // namespace platform
