// What the binding files share: the module's exception types, paths taken from Python
// objects, text handed to Python, and the guard every library call runs under.
//
// The library reports a fatal input error on std::cerr and then calls
// sorvexa::process_exit. The module points that hook at a function that throws
// fatal_input, so the library's frames unwind (closing its files) back to call_library,
// which turns the text the library printed meanwhile into the exception's message.
#pragma once

#include <pybind11/pybind11.h>

#include <string>
#include <string_view>

namespace sorvexa_py {

namespace py = pybind11;

// sorvexa.FormatError and sorvexa.FormatWarning, set when the module is initialised.
extern PyObject* format_error;
extern PyObject* format_warning;

struct fatal_input {
    int status;
};

// Installs the exit hook and the per-thread capture of std::cout and std::cerr.
void install_library_hooks();

// Collects, for the thread that creates it, everything the library writes to std::cout and
// std::cerr until it is destroyed; scopes nest.
class output_capture {
  public:
    output_capture();
    ~output_capture();
    output_capture(const output_capture&) = delete;
    output_capture& operator=(const output_capture&) = delete;
    std::string take();

  private:
    std::string text_;
    std::string* saved_;
};

struct library_result {
    bool failed = false;  // the library gave up on its input
    std::string messages;
};

// Runs f with the library's output captured, without the GIL unless keep_gil. f must not
// touch Python objects when the GIL is released.
// The GIL given up for a scope. The interpreter's own pair of calls: a fetch of one record
// takes about a microsecond, and pybind11's release, which also tracks its own thread
// state, would add a fifth to that.
class without_gil {
  public:
    explicit without_gil(bool release) : state_(release ? PyEval_SaveThread() : nullptr) {}
    ~without_gil() {
        if (state_ != nullptr) PyEval_RestoreThread(state_);
    }
    without_gil(const without_gil&) = delete;
    without_gil& operator=(const without_gil&) = delete;

  private:
    PyThreadState* state_;
};

template <class F>
library_result call_library(F&& f, bool keep_gil = false) {
    library_result r;
    without_gil released(!keep_gil);
    output_capture capture;
    try {
        f();
    } catch (const fatal_input&) {
        r.failed = true;
    }
    r.messages = capture.take();
    return r;
}

// Raises FormatError when the call failed (its message the library's), else turns what the
// library printed into a FormatWarning. Needs the GIL.
void raise_or_warn(const library_result& r);
[[noreturn]] void raise_format_error(const std::string& message);

// os.fspath(path) as bytes for the C++ side (str encoded as the file system wants it).
std::string fs_path(py::handle path);
// Raises the OSError subclass that open() would raise when `path` cannot be opened for
// reading (a directory counts as unreadable), naming the file as the caller gave it.
void check_readable(const std::string& path, py::handle given);

// Bytes from the files as str: UTF-8, with any other byte kept as a lone surrogate
// ("surrogateescape"), so that text.encode("utf-8", "surrogateescape") gives the bytes back.
py::str text(std::string_view bytes);
// The reverse, for names passed in by the caller.
std::string bytes_of(py::handle str);

}  // namespace sorvexa_py
