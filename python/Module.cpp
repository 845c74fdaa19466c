// The Python module `trdcomp`: messages of both codings restored once into
// trdcomp.Message objects (records as NumPy arrays over the restored block,
// the dict `trdcomp decode --json` prints), the messages of a stream or a
// capture as they come, the catalogue, the library's version and catalogue
// fingerprint. Restoring, describing, cutting, reassembling and encoding are
// the message library's (the tool's own) over the library.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Buffer.h"
#include "CatalogueFingerprint.h"
#include "Frame.h"
#include "Iterate.h"
#include "MessageView.h"
#include "PyMessage.h"
#include "Records.h"
#include "trdcomp/trdcomp.hpp"

namespace py = pybind11;
using namespace trdcomp_python;

namespace {

trdcomp::RestoreOptions OptionsOf(const py::object& maxBytes, bool strict) {
    trdcomp::RestoreOptions options;
    options.maxBytes = MaxBytesOf(maxBytes);
    options.strict = strict;
    return options;
}

// Restores the caller's bytes where they are (no copy of them) into one
// block the returned message owns; ValueError when the library refuses them.
std::unique_ptr<Message> Restore(const py::object& data, const trdcomp::RestoreOptions& options) {
    const ByteView bytes(data, "data");
    return Message::Make(bytes.data(), bytes.size(), options, true);
}

py::object Decode(const py::object& data, bool strict, const py::object& maxBytes) {
    const std::unique_ptr<Message> m = Restore(data, OptionsOf(maxBytes, strict));
    return DictOf(m->CopyOut());
}

py::list Records(const py::object& data, const py::object& maxBytes) {
    // The arrays share the message's block: it lives as long as one of them.
    const py::object owner = py::cast(Restore(data, OptionsOf(maxBytes, false)));
    const Message& m = owner.cast<const Message&>();
    py::list arrays;
    for (const tool::SectionView& s : m.View().sections) arrays.append(SectionArray(s, m.Restored(), owner, true));
    return arrays;
}

std::string TypeName(const py::handle& o) { return py::str(o.get_type().attr("__name__")); }

py::bytes Encode(const py::object& message, bool classic) {
    if (!py::isinstance<py::dict>(message))
        throw py::type_error("message must be a dict (as decode returns it), not " + TypeName(message));
    std::string text;
    try {
        text = py::str(py::module_::import("json").attr("dumps")(message, py::arg("allow_nan") = false));
    } catch (const py::error_already_set& e) {
        if (!e.matches(PyExc_TypeError) && !e.matches(PyExc_ValueError)) throw;
        throw py::value_error("message holds a value that is not a JSON value: " + std::string(py::str(e.value())));
    }
    tool::EncodeOptions options;
    options.classic = classic;
    options.names.direction = "a \"direction\" of \"request\" or \"answer\"";
    options.names.id = "the head's \"nFuncId\"";
    options.names.coding = "a \"coding\" of \"2008\", \"fast\" or \"fast:V\"";
    options.names.classic = "classic=True";
    try {
        const std::vector<char> wire = tool::EncodeText(text, options);
        return py::bytes(wire.data(), wire.size());
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        throw py::value_error(std::string("message: ") + e.what());
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

// The library's MessageLength over the caller's bytes where they are, once
// the whole message is in the prefix.
std::optional<std::size_t> MessageLength(const py::object& prefix) {
    const ByteView bytes(prefix, "prefix");
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
    m.doc() = "trdcomp: restore, pack and inspect messages of the 2008 and Fast codings, alone, in streams and in captures.";
    m.attr("__version__") = trdcomp::Version();
    m.attr("DEFAULT_MAX_BYTES") = DefaultMaxBytes();
    BindMessage(m);
    BindIteration(m);
    BindFrame(m);
    const py::int_ maxBytes(DefaultMaxBytes());

    m.def("decode", &Decode, py::arg("data"), py::kw_only(), py::arg("strict") = false, py::arg("max_bytes") = maxBytes,
          R"(Restore a request or an answer and describe it as a dict: the structure
`trdcomp decode --json` prints (direction, coding, flag, bytes, head,
sections with their records field by field).

data: bytes or another contiguous buffer (read where it is, not copied).
strict: also refuse what the classic restore quietly accepts (a message that
ends inside a record, bytes after the last record, a count the stream does
not hold), as the library's strict mode does.
max_bytes: a message whose restore would need more than this many bytes
raises ValueError before anything is allocated (256 MiB unless given; None:
no limit).

Raises ValueError naming the check that failed when the library refuses the
message or the bytes are no message, TypeError when data is no contiguous
buffer.)");
    m.def("encode", &Encode, py::arg("message"), py::kw_only(), py::arg("classic") = false,
          R"(Pack a message described as `decode` returns it (the JSON
`trdcomp encode` reads) and return its bytes.

classic: pack what the coding cannot carry (a Fast ascii byte of 0x80 or
above) as the classic members do, instead of refusing it.

Raises TypeError when message is no dict, ValueError naming what is wrong
in it (a key no message has, with the nearest one; a value of the wrong
shape; a value the coding cannot carry; what the library refuses).)");
    m.def("records", &Records, py::arg("data"), py::kw_only(), py::arg("max_bytes") = maxBytes,
          R"(Restore a message and return its record arrays, one NumPy structured
array per section, with the dtype of the section's layout (see `dtype`);
records that travelled raw come as opaque records of their stated size. The
arrays are views over the one block the message was restored into. Raises
as `decode` does.)");
    m.def("dtype", &LayoutDtype, py::arg("layout"),
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
answer head, records that travelled raw, framing the library would refuse.
Bytes behind the message are ignored. `prefix` is read where it is (any
contiguous buffer, a memoryview slice included), never copied.)");
    m.def(
        "catalogue_hash", [] { return tool::HashText(trdcomp::CatalogueHash()); },
        R"(The fingerprint of the library's catalogue, 16 hex digits, as
`trdcomp catalogue --hash` prints it. Two ends compare it before they talk:
equal fingerprints mean both code every function id alike.)");
}
