#include "glue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <streambuf>

#include "process_exit.h"

namespace sorvexa_py {

PyObject* format_error = nullptr;
PyObject* format_warning = nullptr;

namespace {

// Where the library's output goes on this thread while a capture is open. The streams are
// shared by every thread, so they keep one buffer that looks this up on each write: calls
// made side by side on several threads (with the GIL released) each collect their own text.
thread_local std::string* capture_target = nullptr;

class thread_routed_buf : public std::streambuf {
  public:
    explicit thread_routed_buf(std::streambuf* fallback) : fallback_(fallback) {}

  protected:
    int overflow(int c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        if (capture_target != nullptr) {
            capture_target->push_back(traits_type::to_char_type(c));
            return c;
        }
        return fallback_->sputc(traits_type::to_char_type(c));
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        if (capture_target != nullptr) {
            capture_target->append(s, static_cast<std::size_t>(n));
            return n;
        }
        return fallback_->sputn(s, n);
    }
    int sync() override { return capture_target != nullptr ? 0 : fallback_->pubsync(); }

  private:
    std::streambuf* fallback_;
};

[[noreturn]] void throw_fatal_input(int status) {
    throw fatal_input{status};
}

// The library's messages end with a line feed; the exception text does not.
std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

[[noreturn]] void raise_errno(int err, py::handle given) {
    errno = err;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, given.ptr());
    throw py::error_already_set();
}

}  // namespace

void install_library_hooks() {
    sorvexa::process_exit = throw_fatal_input;
    // Never freed: the streams may still be written to while the process exits.
    std::cout.rdbuf(new thread_routed_buf(std::cout.rdbuf()));
    std::cerr.rdbuf(new thread_routed_buf(std::cerr.rdbuf()));
}

output_capture::output_capture() : saved_(capture_target) {
    capture_target = &text_;
}

output_capture::~output_capture() {
    capture_target = saved_;
}

std::string output_capture::take() {
    return std::move(text_);
}

void raise_format_error(const std::string& message) {
    PyErr_SetObject(format_error, text(message).ptr());
    throw py::error_already_set();
}

void raise_or_warn(const library_result& r) {
    if (!r.failed && r.messages.empty()) return;
    const std::string message = trimmed(r.messages);
    if (r.failed)
        raise_format_error(message.empty() ? "the library gave up on its input" : message);
    if (message.empty()) return;
    if (PyErr_WarnEx(format_warning, message.c_str(), 1) != 0) throw py::error_already_set();
}

std::string fs_path(py::handle path) {
    auto fspath = py::reinterpret_steal<py::object>(PyOS_FSPath(path.ptr()));
    if (!fspath) throw py::error_already_set();
    py::object encoded = fspath;
    if (PyUnicode_Check(fspath.ptr())) {
        encoded = py::reinterpret_steal<py::object>(PyUnicode_EncodeFSDefault(fspath.ptr()));
        if (!encoded) throw py::error_already_set();
    }
    std::string out(PyBytes_AS_STRING(encoded.ptr()),
                    static_cast<std::size_t>(PyBytes_GET_SIZE(encoded.ptr())));
    // The library takes C strings: a NUL would silently name another file.
    if (out.find('\0') != std::string::npos) throw py::value_error("embedded null byte in path");
    return out;
}

void check_readable(const std::string& path, py::handle given) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) raise_errno(errno, given);
    struct stat st {};
    const bool is_dir = ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
    ::close(fd);
    if (is_dir) raise_errno(EISDIR, given);
}

py::str text(std::string_view bytes) {
    PyObject* s = PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()),
                                       "surrogateescape");
    if (s == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(s);
}

std::string bytes_of(py::handle str) {
    if (!PyUnicode_Check(str.ptr())) throw py::type_error("expected a str");
    // The UTF-8 form that Python keeps with the string, when it has one (a name with bytes
    // that are not UTF-8 holds surrogates, which only the slower path encodes).
    Py_ssize_t size = 0;
    if (const char* utf8 = PyUnicode_AsUTF8AndSize(str.ptr(), &size))
        return std::string(utf8, static_cast<std::size_t>(size));
    PyErr_Clear();
    auto encoded = py::reinterpret_steal<py::object>(
        PyUnicode_AsEncodedString(str.ptr(), "utf-8", "surrogateescape"));
    if (!encoded) throw py::error_already_set();
    return std::string(PyBytes_AS_STRING(encoded.ptr()),
                       static_cast<std::size_t>(PyBytes_GET_SIZE(encoded.ptr())));
}

}  // namespace sorvexa_py
