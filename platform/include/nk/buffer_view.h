// A bounded, forward-only reader over bytes it does not own.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

namespace nk {

struct buffer_view {
    const unsigned char* data = nullptr;
    std::uint32_t size = 0;
    std::uint32_t pos = 0;

    buffer_view() = default;
    buffer_view(const void* bytes, std::uint32_t length)
        : data(static_cast<const unsigned char*>(bytes)), size(length) {}

    std::uint32_t remaining() const { return pos < size ? size - pos : 0; }
    bool empty() const { return remaining() == 0; }

    // Copies the next sizeof(T) bytes as they lie in memory (host order).
    template <typename T>
    std::optional<T> read() {
        static_assert(std::is_trivially_copyable_v<T>);
        if (size <= pos || remaining() < sizeof(T))
            return std::nullopt;
        T value;
        std::memcpy(&value, data + pos, sizeof(T));
        pos += sizeof(T);
        return value;
    }

    // Points at the next n elements; fails at the end of the buffer even for n == 0.
    template <typename T>
    std::optional<const T*> readn(std::uint32_t n) {
        static_assert(sizeof(T) == 1, "readn reads bytes");
        if (size <= pos || remaining() < n)
            return std::nullopt;
        const T* p = reinterpret_cast<const T*>(data + pos);
        pos += n;
        return p;
    }

    // A view of the next n bytes, consumed from this one.
    std::optional<buffer_view> sub(std::uint32_t n) {
        if (remaining() < n)
            return std::nullopt;
        buffer_view v(data + pos, n);
        pos += n;
        return v;
    }
};

}  // namespace nk
