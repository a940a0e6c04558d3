// What a library operation reports instead of printing or ending the process: whether it
// worked and, when it did not, the message a program would print (one line, no line end).
// A program's main decides where the message goes and how the process ends.
#pragma once

#include <functional>
#include <string>
#include <utility>

namespace sorvexa {

struct status {
    bool ok = true;
    std::string message;

    static status failure(std::string text) { return {false, std::move(text)}; }
    explicit operator bool() const { return ok; }
};

// A diagnostic line that a reader meets on its way and goes on after (a record cut short,
// the end of a file reached early). Where it goes is the caller's choice: a program that
// shows them says which of its streams they belong on; left empty, they are dropped.
enum class stream { out, err };
using diagnostic_sink = std::function<void(stream where, const std::string& line)>;

}  // namespace sorvexa
