// Decimal text of numbers, fast for the small values that fill read records: quality
// scores and flow numbers are nearly all below 1000, and copying their text from a table is
// cheaper than computing it.
#pragma once

#include <charconv>
#include <cstring>

struct small_numbers {
    char text[1000][4];  // the digits, then their count in the last byte
    small_numbers() {
        for (int v = 0; v < 1000; ++v) {
            char* end = std::to_chars(text[v], text[v] + 3, v).ptr;
            text[v][3] = static_cast<char>(end - text[v]);
        }
    }
};
inline const small_numbers decimal_text;

// Writes v at out (room for `width` characters) and returns the end.
template <class T>
char* put_decimal(char* out, T v, int width) {
    if (v >= 0 && v < 1000) {
        std::memcpy(out, decimal_text.text[v], 3);
        return out + decimal_text.text[v][3];
    }
    return std::to_chars(out, out + width, v).ptr;
}
