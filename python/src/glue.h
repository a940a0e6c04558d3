// What the binding files share: the module's exception types, paths taken from Python
// objects, text handed to Python, and how the library's statuses and diagnostics reach
// Python as exceptions and warnings.
#pragma once

#include <pybind11/pybind11.h>
#include <sorvexa/status.h>

#include <mutex>
#include <string>
#include <string_view>

namespace sorvexa_py {

namespace py = pybind11;

// sorvexa.FormatError and sorvexa.FormatWarning, set when the module is initialised.
extern PyObject* format_error;
extern PyObject* format_warning;

// A reader's diagnostic lines, gathered while a call runs without the GIL and turned into
// one FormatWarning once it has the GIL back. Whoever shares it between threads guards it.
struct diagnostics {
    std::string lines;
    sorvexa::diagnostic_sink sink() {
        return [this](sorvexa::stream, const std::string& line) { (lines += line) += '\n'; };
    }
    std::string take() { return std::move(lines); }
};

// Raises FormatError for a failed status (its message, or the diagnostics when it has
// none), else turns the diagnostics into a FormatWarning. Needs the GIL.
void report(const sorvexa::status& s, const std::string& said = {});

// Runs f, which returns a status, without the GIL (holding `lock`, when given), then reports
// that status with what `said` gathered meanwhile.
template <class F>
void call(std::mutex* lock, diagnostics& said, F&& f) {
    sorvexa::status s;
    std::string lines;
    {
        py::gil_scoped_release released;
        std::unique_lock held = lock ? std::unique_lock(*lock) : std::unique_lock<std::mutex>();
        s = f();
        lines = said.take();
    }
    report(s, lines);
}
[[noreturn]] void raise_key_error(py::handle key);

// os.fspath(path) as bytes for the C++ side (str encoded as the file system wants it).
std::string fs_path(py::handle path);
// Raises the OSError subclass that open() would raise when `path` cannot be opened for
// reading (a directory counts as unreadable), naming the file as the caller gave it: the
// library's own message would not say which of them.
void check_readable(const std::string& path, py::handle given);

// Bytes from the files as str: UTF-8, with any other byte kept as a lone surrogate
// ("surrogateescape"), so that text.encode("utf-8", "surrogateescape") gives the bytes back.
py::str text(std::string_view bytes);
// The reverse, for names passed in by the caller.
std::string bytes_of(py::handle str);

void bind_sff(py::module_& m);
void bind_ace(py::module_& m);
void bind_flowcheck(py::module_& m);

}  // namespace sorvexa_py
