// A command line walked word by word as the programs read it: options may stand anywhere
// before a "--", after which every word is an operand; a long option's value may follow "=",
// a short option's may be glued to it ("-oOUT") when the program says so, else it is the next
// word. Each program decides which options exist and what their values mean.
#pragma once

#include <string>
#include <string_view>

struct argument {
    bool option = false;        // else an operand
    std::string name;           // the option as written, without an "=value"; or the operand
    std::string value;          // the value given with it
    bool inline_value = false;  // "--name=value" or "-xVALUE"
};

class argument_walk {
  public:
    // `glued` lists the short options whose value may be glued to them ("o@" for -oOUT, -@4).
    argument_walk(int argc, char** argv, std::string_view glued = {})
        : argc_(argc), argv_(argv), glued_(glued) {}

    // The next argument; false at the end of the command line.
    bool next(argument& a);
    // The value of option `a` from the next word when it has none inline; false when there
    // is no next word.
    bool take_value(argument& a);

  private:
    int argc_, i_ = 1;
    char** argv_;
    std::string_view glued_;
    bool options_done_ = false;
};
