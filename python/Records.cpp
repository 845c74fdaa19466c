#include "Records.h"

#include <cstring>
#include <map>
#include <vector>

#include "RecordFields.h"

namespace py = pybind11;

namespace trdcomp_python {

namespace {

using trdcomp::generated::kRecordFields;
using trdcomp::generated::kRecordLayouts;
using trdcomp::generated::RecordLayout;

const RecordLayout* FindLayout(const std::string& name) {
    for (const RecordLayout& l : kRecordLayouts)
        if (name == l.name) return &l;
    return nullptr;
}

py::dtype Build(const RecordLayout& l) {
    py::list names, formats, offsets;
    for (int i = l.first; i < l.first + l.count; ++i) {
        const auto& f = kRecordFields[i];
        names.append(f.name);
        if (*f.format)
            formats.append(f.format);
        else  // a counted array: `entries` records of the entry layout
            formats.append(py::make_tuple(LayoutDtype(f.entry), py::make_tuple(f.entries)));
        offsets.append(f.offset);
    }
    py::dict description;
    description["names"] = names;
    description["formats"] = formats;
    description["offsets"] = offsets;
    description["itemsize"] = l.size;
    return py::dtype::from_args(description);
}

}  // namespace

py::dtype LayoutDtype(const std::string& layout) {
    // Built once per layout; kept for the life of the process.
    static auto* cache = new std::map<std::string, py::dtype>();
    const auto it = cache->find(layout);
    if (it != cache->end()) return it->second;
    const RecordLayout* l = FindLayout(layout);
    if (l == nullptr) throw py::value_error("no record layout named " + layout);
    return cache->emplace(layout, Build(*l)).first->second;
}

py::list SectionArrays(const tool::Decoded& m) {
    py::list arrays;
    for (const tool::Section& s : m.sections) {
        const std::size_t slot = s.slot > 0 ? static_cast<std::size_t>(s.slot) : 0;
        const std::size_t n = slot ? s.records.size() / slot : 0;
        const py::dtype type = s.layout ? LayoutDtype(s.layout->name) : py::dtype("V" + std::to_string(slot ? slot : 1));
        py::array a(type, std::vector<py::ssize_t>{static_cast<py::ssize_t>(n)});
        if (n) std::memcpy(a.mutable_data(), s.records.data(), n * slot);
        arrays.append(a);
    }
    return arrays;
}

}  // namespace trdcomp_python
