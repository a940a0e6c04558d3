// Letters as the flow-signal check compares them: without case, and complemented for the
// reads that an assembly shows turned to the other strand.
#pragma once

namespace flow_letters {

// ASCII upper case. The files hold ASCII, and the C library's toupper, which asks the locale
// for every character, took a sixth of a whole run.
inline char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Upper-case letters other than A, C, G and T stay as they are.
inline char complement(char c) {
    switch (c) {
        case 'A':
            return 'T';
        case 'C':
            return 'G';
        case 'G':
            return 'C';
        case 'T':
            return 'A';
        default:
            return c;
    }
}

}  // namespace flow_letters
