// The Python module `trdcomp`: messages of both codings as the dictionaries
// `trdcomp decode --json` prints, restored records as NumPy arrays, the
// catalogue, the library's version and catalogue fingerprint. Decoding and
// encoding are the message library's (the tool's own) over the library:
// a decoded message becomes Python objects straight from its description,
// the values the tool's JSON holds.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "CatalogueFingerprint.h"
#include "Message.h"
#include "Records.h"
#include "model/Samples.h"
#include "trdcomp/trdcomp.hpp"

namespace py = pybind11;

namespace {

std::vector<char> BytesOf(const py::buffer& data) {
    const py::buffer_info b = data.request();
    if (b.ndim != 1 || b.itemsize != 1 || (b.shape[0] > 1 && b.strides[0] != 1))
        throw py::value_error("expected bytes (or a contiguous buffer of bytes)");
    const char* p = static_cast<const char*>(b.ptr);
    return std::vector<char>(p, p + b.shape[0]);
}

tool::Decoded DecodeOrRaise(const py::buffer& data, std::optional<long long> maxBytes, bool strict = false) {
    const std::vector<char> wire = BytesOf(data);
    if (maxBytes) {
        // The library applies the same limit before it allocates; asked here
        // first, the error speaks of max_bytes.
        const std::size_t need = trdcomp::RestoredSize(trdcomp::span<const char>(wire.data(), wire.size()));
        if (*maxBytes < 0 || need > static_cast<unsigned long long>(*maxBytes))
            throw py::value_error("the message restores to " + std::to_string(need) + " bytes, more than max_bytes (" +
                                  std::to_string(*maxBytes) + ")");
    }
    trdcomp::RestoreOptions options;
    if (maxBytes) options.maxBytes = static_cast<std::size_t>(*maxBytes);
    options.strict = strict;
    try {
        py::gil_scoped_release unlocked;
        return tool::Decode(wire, options);
    } catch (const tool::Refused& e) {
        throw py::value_error(std::string("the library refused the message: ") + e.what());
    } catch (const std::exception& e) {
        throw py::value_error(e.what());
    }
}

// Builds Python objects of what it is handed: dicts (members in order),
// lists, ints, floats, strings and None, as json.loads reads the JSON that
// the same description gives.
class PythonSink final : public tool::ValueSink {
public:
    void BeginObject() override { open_.emplace_back(py::dict()); }
    void Key(std::string_view key) override { keys_.emplace_back(py::str(key.data(), key.size())); }
    void EndObject() override { Close(); }
    void BeginList() override { open_.emplace_back(py::list()); }
    void EndList() override { Close(); }
    void Null() override { Put(py::none()); }
    void Integer(std::int64_t v) override { Put(py::int_(v)); }
    void Unsigned(std::uint64_t v) override { Put(py::int_(v)); }
    void Double(double v) override { Put(py::float_(v)); }
    void String(std::string_view v) override { Put(py::str(v.data(), v.size())); }
    py::object Take() { return std::move(done_); }

private:
    void Close() {
        py::object v = std::visit([](auto& open) -> py::object { return std::move(open); }, open_.back());
        open_.pop_back();
        Put(std::move(v));
    }
    void Put(py::object v) {
        if (open_.empty()) {
            done_ = std::move(v);
        } else if (auto* list = std::get_if<py::list>(&open_.back())) {
            list->append(std::move(v));
        } else {
            std::get<py::dict>(open_.back())[keys_.back()] = std::move(v);
            keys_.pop_back();
        }
    }

    std::vector<std::variant<py::dict, py::list>> open_;  // not closed yet, outermost first
    std::vector<py::str> keys_;                            // keys whose values are to come, innermost last
    py::object done_;
};

py::object Decode(const py::buffer& data, bool strict, std::optional<long long> maxBytes) {
    const tool::Decoded m = DecodeOrRaise(data, maxBytes, strict);
    PythonSink sink;
    tool::DescribeMessage(m, sink);
    return sink.Take();
}

py::bytes Encode(const py::object& message) {
    std::string text;
    try {
        text = py::str(py::module_::import("json").attr("dumps")(message, py::arg("allow_nan") = false));
    } catch (const py::error_already_set& e) {
        throw py::value_error(std::string("the message is not a JSON value: ") + e.what());
    }
    try {
        const std::vector<char> wire = tool::EncodeText(text, {});
        return py::bytes(wire.data(), wire.size());
    } catch (const std::exception& e) {
        throw py::value_error(e.what());
    }
}

py::object Cell(const catalogue_model::Cell& cell) {
    if (cell.IsCodec()) return py::int_(cell.codec);
    return py::str(cell.Text());
}

py::dict Routes(const std::vector<catalogue_model::Route>& routes) {
    static const char* const kColumns[4] = {"pack_2008", "pack_fast", "restore_2008", "restore_fast"};
    py::dict out;
    for (const auto& r : routes) {
        py::dict cells;
        for (int k = 0; k < 4; ++k) cells[kColumns[k]] = Cell(r.cell[k]);
        out[py::int_(r.id)] = cells;
    }
    return out;
}

py::dict Catalogue() {
    const auto& c = catalogue_model::Get();
    py::dict layouts;
    for (const auto& [layoutName, l] : c.layouts) {
        py::list fields;
        for (const auto& f : l.fields) {
            py::dict d;
            std::string name = "f";  // as in TrdCompRecords.h
            name += std::to_string(f.offset);
            d["name"] = name;
            d["offset"] = f.offset;
            d["kind"] = catalogue_model::FieldKindName(f.kind);
            d["width"] = f.width;
            if (f.kind == catalogue_model::FieldKind::Array) {
                d["entry"] = f.entry;
                d["entries"] = f.entries;
                d["count_offset"] = f.countOffset;
            }
            fields.append(d);
        }
        py::dict d;
        d["size"] = l.size;
        d["fields"] = fields;
        layouts[py::str(layoutName)] = d;
    }
    py::dict requestLayouts, shapes, aliases;
    for (const auto& [codec, layout] : c.requestLayoutOf) requestLayouts[py::int_(codec)] = layout;
    for (const auto& [codec, s] : c.shapes) {
        py::dict d;
        d["kind"] = catalogue_model::ShapeKindName(s.kind);
        d["layouts"] = s.layouts;
        shapes[py::int_(codec)] = d;
    }
    for (const auto& [id, of] : c.aliases) aliases[py::int_(id)] = of;
    py::dict out;
    out["hash"] = tool::HashText(trdcomp::CatalogueHash());
    out["layouts"] = layouts;
    out["requests"] = Routes(c.requestRoutes);
    out["answers"] = Routes(c.answerRoutes);
    out["request_layouts"] = requestLayouts;
    out["answer_shapes"] = shapes;
    out["answer_aliases"] = aliases;
    return out;
}

// The library's MessageLength, once the whole message is in the prefix.
std::optional<std::size_t> MessageLength(const py::buffer& prefix) {
    const std::vector<char> bytes = BytesOf(prefix);
    const trdcomp::FrameLength f = trdcomp::MessageLength(bytes.data(), bytes.size());
    if (f.status != trdcomp::Framing::complete || f.length > bytes.size()) return std::nullopt;
    return f.length;
}

}  // namespace

PYBIND11_MODULE(trdcomp, m) {
    // The record dtypes and the catalogue were generated with this module;
    // the library must have been built from the same catalogue.
    if (trdcomp::CatalogueHash() != TRDCOMP_CATALOGUE_HASH)
        throw py::import_error("the trdcomp library loaded was built from catalogue " + tool::HashText(trdcomp::CatalogueHash()) +
                               ", this module from catalogue " + tool::HashText(TRDCOMP_CATALOGUE_HASH));
    m.doc() = "trdcomp: restore, pack and inspect messages of the 2008 and Fast codings.";
    m.attr("__version__") = trdcomp::Version();

    m.def("decode", &Decode, py::arg("data"), py::kw_only(), py::arg("strict") = false, py::arg("max_bytes") = py::none(),
          R"(Restore a request or an answer and describe it as a dict: the structure
`trdcomp decode --json` prints (direction, coding, flag, bytes, head,
sections with their records field by field).

strict: also refuse what the classic restore quietly accepts (a message that
ends inside a record, bytes after the last record, a count the stream does
not hold), as the library's strict mode does.
max_bytes: when given, a message whose restore would need more than this
many bytes raises ValueError before anything is allocated.

Raises ValueError naming the check that failed when the library refuses the
message or the bytes are no message.)");
    m.def("encode", &Encode, py::arg("message"),
          R"(Pack a message described as `decode` returns it (the JSON
`trdcomp encode` reads) and return its bytes. Raises ValueError naming what
is wrong.)");
    m.def(
        "records",
        [](const py::buffer& data, std::optional<long long> maxBytes) {
            return trdcomp_python::SectionArrays(DecodeOrRaise(data, maxBytes));
        },
        py::arg("data"), py::kw_only(), py::arg("max_bytes") = py::none(),
        R"(Restore a message and return its record arrays, one NumPy structured
array per section, with the dtype of the section's layout (see `dtype`);
records that travelled raw come as opaque records of their stated size.
Raises ValueError as `decode` does.)");
    m.def("dtype", &trdcomp_python::LayoutDtype, py::arg("layout"),
          R"(The packed NumPy dtype of a record layout ("REQ_1002"): fields named
and placed as in TrdCompRecords.h (f0, f35, ...), itemsize the layout's
size. Chars and texts are byte strings, blocks unsigned byte arrays,
counted arrays nested records.)");
    m.def("catalogue", &Catalogue,
          R"(The catalogue as a dict: layouts with their fields, the routing of
requests and answers (per id: pack_2008, pack_fast, restore_2008,
restore_fast; an int names the id whose codec serves it, a string is
RAW, NO_RECORDS, HEAD_ONLY or NOTHING), request layouts and answer shapes
by codec, answer aliases, and the fingerprint `hash`.)");
    m.def("message_length", &MessageLength, py::arg("prefix"),
          R"(The length of the message that starts at `prefix`, read from its
framing (head, section table or Fast counts, each record's length prefix),
or None when the bytes do not tell it yet or cannot tell it: no request or
answer head, records that travelled raw, an id whose restore keeps nothing,
framing the library would refuse. Bytes behind the message are ignored.)");
    m.def(
        "catalogue_hash", [] { return tool::HashText(trdcomp::CatalogueHash()); },
        R"(The fingerprint of the library's catalogue, 16 hex digits, as
`trdcomp catalogue --hash` prints it. Two ends compare it before they talk:
equal fingerprints mean both code every function id alike.)");
}
