#pragma once

#include <pybind11/pybind11.h>

namespace kvx::python {

/// The classes of the module that stand for `kvx::Client` and what it gives.
void defineClient(pybind11::module_& module);

}  // namespace kvx::python
