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

}  // namespace trdcomp_python
