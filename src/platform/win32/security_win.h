#pragma once
// The owner of a kernel or file object, read from a handle the caller holds.
#include <windows.h>
#include <aclapi.h>

#include "platform/system.h"

namespace platform::win32 {

// kUnreadable when the query fails or reports no owner (Wine 8 does so for mutexes).
ObjectOwner OwnerOf(HANDLE handle, SE_OBJECT_TYPE type);

}  // namespace platform::win32
