#pragma once

namespace common {

/** The least multiple of `step`, which is not 0, that is not below `value`; must fit in T. */
template <typename T> constexpr T round_up(T value, T step)
{
    return (value + step - 1) / step * step;
}

} // namespace common
