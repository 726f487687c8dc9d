#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

// Counters and indices are signed 16-bit: a value that does not fit fails its
// conversion, as the system expects. Loops that run up to a count use an int
// counter, since a 16-bit one would wrap after 32767 and never end.
inline std::int16_t CInt16(long long value)
{
    if (value < -32768 || value > 32767) {
        throw std::overflow_error("overflow: " + std::to_string(value) + " does not fit a 16-bit integer");
    }
    return static_cast<std::int16_t>(value);
}
