// The inline 8-bit coverage counters of the whole executable.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz_support {

// The first counter and the number of counters (0 when the executable has none).
std::uint8_t* coverage_counters();
std::size_t coverage_counter_count();

}  // namespace fuzz_support
