// trdcomp.frame and Message.frame: records as pandas DataFrames.
#pragma once

#include <pybind11/pybind11.h>

namespace trdcomp_python {

void BindFrame(pybind11::module_& m);

}  // namespace trdcomp_python
