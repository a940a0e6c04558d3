#include "arguments.h"

bool argument_walk::next(argument& a) {
    for (; i_ < argc_; ++i_) {
        a = {};
        a.name = argv_[i_];
        if (options_done_ || a.name.size() < 2 || a.name[0] != '-') {
            ++i_;
            return true;
        }
        if (a.name == "--") {
            options_done_ = true;
            continue;
        }
        a.option = true;
        const auto eq = a.name.find('=');
        if (a.name.starts_with("--") && eq != std::string::npos) {
            a.value = a.name.substr(eq + 1);
            a.name.resize(eq);
            a.inline_value = true;
        } else if (a.name.size() > 2 && a.name[1] != '-' &&
                   glued_.find(a.name[1]) != std::string_view::npos) {
            a.value = a.name.substr(2);
            a.name.resize(2);
            a.inline_value = true;
        }
        ++i_;
        return true;
    }
    return false;
}

bool argument_walk::take_value(argument& a) {
    if (a.inline_value) return true;
    if (i_ >= argc_) return false;
    a.value = argv_[i_++];
    return true;
}
