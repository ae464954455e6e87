// Bytes from outside go through one reader: a field that is not wholly there gives nothing.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace vela
{

class byte_reader
{
public:
    explicit byte_reader(std::span<const uint8_t> bytes) : rest_{bytes} {}

    [[nodiscard]] size_t remaining() const { return rest_.size(); }
    [[nodiscard]] std::span<const uint8_t> rest() const { return rest_; }

    /// The next n bytes, where all of them are there.
    std::optional<std::span<const uint8_t>> bytes(size_t n)
    {
        if (n > rest_.size()) return std::nullopt;
        const std::span<const uint8_t> taken{rest_.data(), n};
        rest_ = {rest_.data() + n, rest_.size() - n};
        return taken;
    }

    // Host order: local IPC.
    std::optional<uint8_t> u8() { return number<uint8_t>(); }
    std::optional<uint16_t> u16() { return number<uint16_t>(); }
    std::optional<uint32_t> u32() { return number<uint32_t>(); }

    // Network order.
    std::optional<uint16_t> be16()
    {
        return swapped(number<uint16_t>(), [](uint16_t n) { return __builtin_bswap16(n); });
    }
    std::optional<uint32_t> be32()
    {
        return swapped(number<uint32_t>(), [](uint32_t n) { return __builtin_bswap32(n); });
    }

private:
    template <class T> std::optional<T> number()
    {
        const auto taken = bytes(sizeof(T));
        if (!taken) return std::nullopt;
        T value;
        memcpy(&value, taken->data(), sizeof value);
        return value;
    }
    template <class T, class Swap> static std::optional<T> swapped(std::optional<T> n, Swap swap)
    {
        if (!n || std::endian::native == std::endian::big) return n;
        return swap(*n);
    }

    std::span<const uint8_t> rest_;
};

} // namespace vela
