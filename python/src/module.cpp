// The extension module sorvexa._sorvexa; the package sorvexa re-exports it.
#include <pybind11/pybind11.h>

#include "glue.h"

namespace py = pybind11;

PYBIND11_MODULE(_sorvexa, m) {
    m.doc() = "The C++ part of the sorvexa package.";
    m.attr("__version__") = SORVEXA_VERSION;

    // Both live as long as the process: the module is never unloaded.
    sorvexa_py::format_error = PyErr_NewExceptionWithDoc(
        "sorvexa.FormatError",
        "An input file is not in the format it should be: not SFF, not an ACE file, or an "
        "ACE file out of grammar. The message is the reader's.",
        PyExc_ValueError, nullptr);
    sorvexa_py::format_warning = PyErr_NewExceptionWithDoc(
        "sorvexa.FormatWarning",
        "A reader met a damaged input and went on: a file cut short ends the walk over its "
        "records, what came before stays. The message is the reader's.",
        PyExc_UserWarning, nullptr);
    if (sorvexa_py::format_error == nullptr || sorvexa_py::format_warning == nullptr)
        throw py::error_already_set();
    m.attr("FormatError") = py::handle(sorvexa_py::format_error);
    m.attr("FormatWarning") = py::handle(sorvexa_py::format_warning);

    sorvexa_py::bind_sff(m);
    sorvexa_py::bind_ace(m);
    sorvexa_py::bind_flowcheck(m);
}
