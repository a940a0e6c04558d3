// The parts of the module, each defined in its own file.
#pragma once

#include <pybind11/pybind11.h>

namespace sorvexa_py {

void bind_sff(pybind11::module_& m);
void bind_ace(pybind11::module_& m);
void bind_flowcheck(pybind11::module_& m);

}  // namespace sorvexa_py
