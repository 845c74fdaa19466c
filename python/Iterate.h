// trdcomp.messages, trdcomp.pcap and trdcomp.Report.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>

namespace trdcomp_python {

// What decode, records, messages and pcap restore at most unless told (256 MiB).
std::size_t DefaultMaxBytes();

void BindIteration(pybind11::module_& m);

}  // namespace trdcomp_python
