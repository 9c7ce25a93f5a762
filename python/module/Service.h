#pragma once

#include <pybind11/pybind11.h>

namespace kvx::python {

/// The classes of the module that stand for `kvx::Service` and what it gives.
void defineService(pybind11::module_& module);

}  // namespace kvx::python
