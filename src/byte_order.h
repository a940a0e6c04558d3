// Byte order of SFF numbers. Fields are taken as they lie in the file and turned around
// only when the file's order is not the host's, so each number is converted once, in one
// place, and character data is never touched.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace byte_order {

// The bytes of `field` as they lie at `at`, in file order.
template <class T>
void load(T& field, const unsigned char* at) {
    std::memcpy(&field, at, sizeof(T));
}

template <class T>
T reversed(T v) {
    unsigned char b[sizeof(T)];
    std::memcpy(b, &v, sizeof(T));
    std::reverse(b, b + sizeof(T));
    std::memcpy(&v, b, sizeof(T));
    return v;
}

template <class... T>
void reverse_all(T&... fields) {
    ((fields = reversed(fields)), ...);
}

inline void reverse_each(std::vector<std::uint16_t>& values) {
    for (auto& v : values) v = reversed(v);
}

// Four bytes read as a big-endian number, whatever the host's order.
inline std::uint32_t big_endian32(const unsigned char* b) {
    return std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 |
           std::uint32_t{b[3]};
}

}  // namespace byte_order
