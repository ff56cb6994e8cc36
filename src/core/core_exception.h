#pragma once
// The framework's one exception: raised only for out-of-memory and string-bounds faults in string
// handling ("OutOfMem", "to_mstr Failed", "to_wstr Failed", "Array bounds"). Nothing catches it.
#include <stdexcept>
#include <string>

namespace CORE {

class coreException : public std::runtime_error {
public:
    explicit coreException(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace CORE
