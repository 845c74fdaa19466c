// Records of many messages as pandas DataFrames, one a layout: where each
// record was found (the message's number, function id, capture time and
// connection) in front of its fields, texts and chars as str, blocks as
// bytes, numbers as they are. pandas is imported when first asked for.
#include "Frame.h"

#include <pybind11/numpy.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "PyMessage.h"
#include "Records.h"

namespace py = pybind11;

namespace trdcomp_python {

namespace {

// The records of one layout, and where each was found.
struct Rows {
    py::list arrays;
    std::vector<std::uint64_t> message;
    std::vector<std::int32_t> functionId, section;
    std::vector<std::int64_t> timeNs;
    std::vector<std::string> connection;
    bool timed = false, connected = false;
};

template <class T>
py::array ArrayOf(const std::vector<T>& v) {
    return py::array_t<T>(static_cast<py::ssize_t>(v.size()), v.data());
}

py::module_ Pandas() {
    try {
        return py::module_::import("pandas");
    } catch (py::error_already_set& e) {
        if (!e.matches(PyExc_ImportError)) throw;
        throw py::import_error("trdcomp.frame needs pandas, which is not installed (Debian: apt-get install python3-pandas)");
    }
}

// A column of the layout's field `f` from the records `a`.
py::object Column(const py::module_& np, const py::object& a, const tool::Field& f, const std::string& name) {
    const py::object column = a[py::str(name)];
    switch (f.kind) {
        case tool::FieldKind::Char:
        case tool::FieldKind::Text:
        case tool::FieldKind::Ascii:
            // Byte strings without their trailing zeros, each byte one character.
            return np.attr("char").attr("decode")(column, "latin-1");
        case tool::FieldKind::Bytes:
        case tool::FieldKind::Uncoded:
        case tool::FieldKind::Sized:
            if (f.width == 1) return column;
            return py::module_::import("builtins").attr("list")(py::module_::import("builtins").attr("map")(
                py::module_::import("builtins").attr("bytes"), column));
        case tool::FieldKind::Int32:
        case tool::FieldKind::Int64:
        case tool::FieldKind::Double: return np.attr("ascontiguousarray")(column);
        case tool::FieldKind::Array:  // each row's entries as a structured array
            return py::module_::import("builtins").attr("list")(column);
    }
    return column;
}

py::object FrameOf(const py::module_& pd, const py::module_& np, const std::string& layout, Rows& rows) {
    const tool::Layout& l = catalogue_model::Get().At(layout);
    const py::dtype type = LayoutDtype(layout);
    const py::object records = rows.arrays.empty() ? py::object(py::array(type, std::vector<py::ssize_t>{0}))
                                                   : np.attr("concatenate")(rows.arrays);
    py::dict columns;
    columns["message"] = ArrayOf(rows.message);
    columns["function_id"] = ArrayOf(rows.functionId);
    columns["section"] = ArrayOf(rows.section);
    if (rows.timed) columns["time"] = pd.attr("to_datetime")(ArrayOf(rows.timeNs).attr("astype")("datetime64[ns]"), py::arg("utc") = true);
    if (rows.connected) {
        py::list connection;
        for (const std::string& c : rows.connection) connection.append(c.empty() ? py::object(py::none()) : py::object(py::str(c)));
        columns["connection"] = connection;
    }
    for (const tool::Field& f : l.fields) {
        std::string name = "f";
        name += std::to_string(f.offset);
        columns[py::str(name)] = Column(np, records, f, name);
        if (f.kind == tool::FieldKind::Sized) {  // its length behind it
            const std::string length = "f" + std::to_string(f.offset + f.width);
            columns[py::str(length)] = np.attr("ascontiguousarray")(records[py::str(length)]);
        }
    }
    return pd.attr("DataFrame")(columns);
}

py::object Frame(const py::object& messages, const py::object& layout) {
    const py::module_ pd = Pandas();
    const py::module_ np = py::module_::import("numpy");
    std::optional<std::string> only;
    if (!layout.is_none()) {
        if (!py::isinstance<py::str>(layout))
            throw py::type_error("layout must be the name of a record layout (str) or None, not " +
                                 std::string(py::str(layout.get_type().attr("__name__"))));
        only = layout.cast<std::string>();
        LayoutDtype(*only);  // ValueError for a name that is no layout
    }
    const py::object messageType = py::type::of<Message>();
    const py::object each = py::isinstance(messages, messageType) ? py::object(py::make_tuple(messages)) : messages;
    std::map<std::string, Rows> byLayout;
    py::iterator it;
    try {
        it = py::iter(each);
    } catch (const py::error_already_set& e) {
        if (!e.matches(PyExc_TypeError)) throw;
        throw py::type_error("messages must be a trdcomp.Message or an iterable of them (messages(), pcap(), a list), not " +
                             std::string(py::str(messages.get_type().attr("__name__"))));
    }
    for (const py::handle h : it) {
        if (!py::isinstance(h, messageType))
            throw py::type_error("messages must hold trdcomp.Message objects, not " + std::string(py::str(h.get_type().attr("__name__"))));
        const py::object object = py::reinterpret_borrow<py::object>(h);
        const Message& m = object.cast<const Message&>();
        if (m.Refused()) continue;
        const py::list sections = SectionsOf(object);
        for (std::size_t j = 0; j < m.View().sections.size(); ++j) {
            const tool::SectionView& s = m.View().sections[j];
            if (s.layout == nullptr || s.records == 0 || (only && *only != s.layout->name)) continue;
            Rows& rows = byLayout[s.layout->name];
            rows.arrays.append(sections[j]);
            for (std::size_t k = 0; k < s.records; ++k) {
                rows.message.push_back(m.found.number);
                rows.functionId.push_back(m.View().functionId);
                rows.section.push_back(static_cast<std::int32_t>(j));
                rows.timeNs.push_back(m.found.timed ? m.found.time.sec * 1000000000 + m.found.time.nsec : 0);
                rows.connection.push_back(m.found.connection);
            }
            rows.timed = rows.timed || m.found.timed;
            rows.connected = rows.connected || !m.found.connection.empty();
        }
    }
    if (only) return FrameOf(pd, np, *only, byLayout[*only]);
    py::dict frames;
    for (auto& [name, rows] : byLayout) frames[py::str(name)] = FrameOf(pd, np, name, rows);
    return frames;
}

}  // namespace

void BindFrame(py::module_& module) {
    module.def("frame", &Frame, py::arg("messages"), py::arg("layout") = py::none(),
          R"(The records of messages as pandas DataFrames, one row a record.

messages: a trdcomp.Message or an iterable of them (messages(), pcap(), a
list); refused messages and records that travelled raw are left out.
layout: the one layout to keep ("REQ_1002"): its DataFrame is returned.
Without it, a dict of a DataFrame per layout met.

Columns: message (its number in the stream or capture), function_id,
section, time (UTC, for a capture's messages) and connection (a capture's),
then the fields f<offset> of the layout: chars and texts as str, blocks as
bytes, numbers as numbers, counted arrays as one structured array a row.
Raises ImportError when pandas is not installed.)");
    module.attr("Message").attr("frame") = py::cpp_function(
        [](const py::object& self, const py::object& layout) { return Frame(self, layout); }, py::name("frame"),
        py::is_method(module.attr("Message")), py::arg("layout") = py::none(),
        "frame([self], layout): this message's records as DataFrames (see trdcomp.frame).");
}

}  // namespace trdcomp_python
