// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>

namespace slate::internal {
struct Division {
    std::uint64_t quotient;
    std::uint64_t remainder;
};

/// The same with a product of more than 64 bits, bit by bit.
inline std::optional<Division> multiply_divide_wide(std::uint64_t a, std::uint64_t b, std::uint64_t divisor)
{
    constexpr std::uint64_t low_half = 0xFFFFFFFF;
    const std::uint64_t low_low = (a & low_half) * (b & low_half);
    const std::uint64_t high_low = (a >> 32) * (b & low_half) + (low_low >> 32);
    const std::uint64_t low_high = (a & low_half) * (b >> 32) + (high_low & low_half);
    const std::uint64_t high = (a >> 32) * (b >> 32) + (high_low >> 32) + (low_high >> 32);
    const std::uint64_t low = low_high << 32 | (low_low & low_half);
    if (high >= divisor)
        return std::nullopt;

    Division result{0, high};
    for (int bit = 63; bit >= 0; --bit) {
        const bool carry = result.remainder >> 63 != 0;
        result.remainder = result.remainder << 1 | (low >> bit & 1);
        result.quotient <<= 1;
        if (carry || result.remainder >= divisor) {
            result.remainder -= divisor;
            ++result.quotient;
        }
    }
    return result;
}

/// a * b / divisor, exact even if the product needs 128 bits, for which 32-bit targets have no type. Nothing
/// if the quotient needs more than 64 bits. `divisor` is not 0.
inline std::optional<Division> multiply_divide(std::uint64_t a, std::uint64_t b, std::uint64_t divisor)
{
    std::uint64_t product = 0;
    if (__builtin_mul_overflow(a, b, &product))
        return multiply_divide_wide(a, b, divisor);
    return Division{product / divisor, product % divisor};
}
} // namespace slate::internal
