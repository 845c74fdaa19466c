// Restored records as NumPy structured arrays, with a dtype per layout built
// from the generator's description of the fields (RecordFields.h).
#pragma once

#include <pybind11/numpy.h>

#include <string>


namespace trdcomp_python {

// The packed dtype of a layout: fields named and placed as in
// TrdCompRecords.h, itemsize the layout's size. Throws ValueError for a name
// that is no layout.
pybind11::dtype LayoutDtype(const std::string& layout);

}  // namespace trdcomp_python
