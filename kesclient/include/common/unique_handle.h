#pragma once
// A move-only owner for an operating-system handle, the one template both binaries use. Each
// handle kind supplies a traits type:
//   struct Traits { using Type = ...; static Type Invalid() noexcept; static void Close(Type) noexcept; };
// so that kinds with different "no handle" values (null, INVALID_HANDLE_VALUE) cannot be mixed up.
#include <utility>

namespace common {

template <typename Traits>
class UniqueHandle {
public:
    using Type = typename Traits::Type;

    UniqueHandle() noexcept : value_(Traits::Invalid()) {}
    explicit UniqueHandle(Type value) noexcept : value_(value) {}
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    UniqueHandle(UniqueHandle&& other) noexcept : value_(other.release()) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~UniqueHandle() { reset(); }

    [[nodiscard]] bool valid() const noexcept { return value_ != Traits::Invalid(); }
    explicit operator bool() const noexcept { return valid(); }
    [[nodiscard]] Type get() const noexcept { return value_; }

    // For out-parameters of creation functions: closes what is held, then exposes the slot.
    Type* put() noexcept {
        reset();
        return &value_;
    }

    Type release() noexcept { return std::exchange(value_, Traits::Invalid()); }

    void reset(Type value = Traits::Invalid()) noexcept {
        Type old = std::exchange(value_, value);
        if (old != Traits::Invalid()) Traits::Close(old);
    }

private:
    Type value_;
};

}  // namespace common
