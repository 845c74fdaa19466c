// Restored records as NumPy structured arrays, with a dtype per layout built
// from the generator's description of the fields (RecordFields.h).
#pragma once

#include <pybind11/numpy.h>

#include <string>

#include "Message.h"

namespace trdcomp_python {

// The packed dtype of a layout: fields named and placed as in
// TrdCompRecords.h, itemsize the layout's size. Throws ValueError for a name
// that is no layout.
pybind11::dtype LayoutDtype(const std::string& layout);

// One array per section of a decoded message: its records with the layout's
// dtype, or as opaque records of the section's size where the records
// travelled raw. One copy of the bytes, no Python loop.
pybind11::list SectionArrays(const tool::Decoded& m);

}  // namespace trdcomp_python
