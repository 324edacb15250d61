// Float to integer conversions that saturate instead of invoking undefined
// behaviour on NaN or out-of-range values: a device may be handed any float,
// and neither the library nor an emulated device may crash on it.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace ocp_api::detail {

// Truncates toward zero; NaN and negative values give 0, values of 2^32 and
// above give 2^32 - 1.
inline uint32_t saturating_u32(float value) {
    if (!(value > 0.0f)) return 0;
    if (value >= 4294967296.0f) return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(value);
}

// Truncates toward zero; NaN gives 0, values beyond the range the nearest limit.
inline int32_t saturating_i32(float value) {
    if (std::isnan(value)) return 0;
    if (value >= 2147483648.0f) return std::numeric_limits<int32_t>::max();
    if (value < -2147483648.0f) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(value);
}

}  // namespace ocp_api::detail
