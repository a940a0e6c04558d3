#include "glue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace sorvexa_py {

PyObject* format_error = nullptr;
PyObject* format_warning = nullptr;

namespace {

// The diagnostics end with a line feed; a message does not.
std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

[[noreturn]] void raise_errno(int err, py::handle given) {
    errno = err;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, given.ptr());
    throw py::error_already_set();
}

}  // namespace

void raise_key_error(py::handle key) {
    PyErr_SetObject(PyExc_KeyError, key.ptr());
    throw py::error_already_set();
}

void report(const sorvexa::status& s, const std::string& said) {
    const std::string message = trimmed(s.ok || s.message.empty() ? said : s.message);
    if (!s.ok)
        PyErr_SetObject(format_error,
                        text(message.empty() ? "the library gave up" : message).ptr());
    else if (message.empty() || PyErr_WarnEx(format_warning, message.c_str(), 1) == 0)
        return;
    throw py::error_already_set();
}

std::string fs_path(py::handle path) {
    // Encoded as the file system wants it; a NUL, which would name another file to the
    // library's C strings, is refused.
    PyObject* encoded = nullptr;
    if (PyUnicode_FSConverter(path.ptr(), &encoded) == 0) throw py::error_already_set();
    return py::reinterpret_steal<py::bytes>(encoded);
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
