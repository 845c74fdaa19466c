#include "PyMessage.h"

#include <cstring>
#include <map>
#include <new>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Records.h"
#include "trdcomp/MessageHead.hpp"

namespace py = pybind11;

namespace trdcomp_python {

namespace {

namespace head = trdcomp::head;

// Builds Python objects of what it is handed: dicts (members in order),
// lists, ints, floats, strings and None, as json.loads reads the JSON that
// the same description gives. Keys are the describers' own few names: each
// is made a Python string once.
class PythonSink final : public tool::ValueSink {
public:
    ~PythonSink() override {
        for (PyObject* o : open_) Py_DECREF(o);
        Py_XDECREF(done_);
    }
    void BeginObject() override { Open(PyDict_New()); }
    void Key(std::string_view key) override { keys_.push_back(KeyOf(key)); }
    void EndObject() override { Close(); }
    void BeginList() override { Open(PyList_New(0)); }
    void EndList() override { Close(); }
    void Null() override { Put(Py_NewRef(Py_None)); }
    void Integer(std::int64_t v) override { Put(PyLong_FromLongLong(v)); }
    void Unsigned(std::uint64_t v) override { Put(PyLong_FromUnsignedLongLong(v)); }
    void Double(double v) override { Put(PyFloat_FromDouble(v)); }
    void String(std::string_view v) override { Put(PyUnicode_FromStringAndSize(v.data(), static_cast<Py_ssize_t>(v.size()))); }
    py::object Take() {
        PyObject* done = done_;
        done_ = nullptr;
        return py::reinterpret_steal<py::object>(done);
    }

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
    };
    // Interned once, kept for the life of the process.
    static PyObject* KeyOf(std::string_view key) {
        static auto* keys = new std::unordered_map<std::string, PyObject*, Hash, std::equal_to<>>();
        const auto it = keys->find(key);
        if (it != keys->end()) return it->second;
        PyObject* k = PyUnicode_FromStringAndSize(key.data(), static_cast<Py_ssize_t>(key.size()));
        if (k == nullptr) throw py::error_already_set();
        PyUnicode_InternInPlace(&k);
        return keys->emplace(std::string(key), k).first->second;
    }
    void Open(PyObject* container) {
        if (container == nullptr) throw py::error_already_set();
        open_.push_back(container);
    }
    void Close() {
        PyObject* v = open_.back();
        open_.pop_back();
        Put(v);
    }
    // Takes the reference to v.
    void Put(PyObject* v) {
        if (v == nullptr) throw py::error_already_set();
        if (open_.empty()) {
            Py_XDECREF(done_);
            done_ = v;
            return;
        }
        PyObject* into = open_.back();
        int failed;
        if (PyList_CheckExact(into)) {
            failed = PyList_Append(into, v);
        } else {
            failed = PyDict_SetItem(into, keys_.back(), v);
            keys_.pop_back();
        }
        Py_DECREF(v);
        if (failed) throw py::error_already_set();
    }

    std::vector<PyObject*> open_;  // not closed yet, outermost first (references held)
    std::vector<PyObject*> keys_;  // keys whose values are to come, innermost last (interned)
    PyObject* done_ = nullptr;
};

const py::dtype& SectionDtype(const tool::SectionView& s) {
    // One dtype a layout (or a raw record size), built once.
    static auto* byLayout = new std::unordered_map<const tool::Layout*, py::dtype>();
    static auto* bySize = new std::map<int, py::dtype>();
    if (s.layout) {
        const auto it = byLayout->find(s.layout);
        if (it != byLayout->end()) return it->second;
        return byLayout->emplace(s.layout, LayoutDtype(s.layout->name)).first->second;
    }
    const int size = s.slot > 0 ? s.slot : 1;
    const auto it = bySize->find(size);
    if (it != bySize->end()) return it->second;
    return bySize->emplace(size, py::dtype("V" + std::to_string(size))).first->second;
}

std::string CodingOf(const tool::DecodedView& v) { return tool::CodingName(v.fastVersion); }

// The head as the sender wrote it, as a dict.
py::object HeadDict(const Message& m) {
    tool::Decoded d;
    d.request = m.View().request;
    d.wire.assign(m.Wire(), m.Wire() + std::min<std::size_t>(m.WireSize(), head::kAnswerLength));
    PythonSink sink;
    tool::DescribeHead(d, sink);
    return sink.Take();
}

// What the head of a refused message says, as the tool's JSON lines give it.
py::dict RefusedDict(const Message& m) {
    py::dict d;
    d["bytes"] = m.WireSize();
    const head::Direction direction = head::DirectionOf(m.Wire(), m.WireSize());
    if (direction != head::kNoMessage && m.WireSize() >= head::kRoutingBytes) {
        d["direction"] = direction == head::kRequest ? "request" : "answer";
        d["id"] = head::Load(m.Wire(), head::kFunctionIdAt);
        d["coding"] = tool::CodingName(head::FastVersion(head::Load(m.Wire(), head::kFlagsAt)));
    }
    d["refused"] = m.Reason();
    return d;
}

}  // namespace

py::object SectionsOf(const py::object& self) {
    // Not kept in the message: an array holds its message, which would then
    // hold the array (a cycle the collector cannot see).
    const Message& m = self.cast<const Message&>();
    if (m.Refused()) return py::list();
    const std::vector<tool::SectionView>& sections = m.View().sections;
    py::list out(sections.size());
    for (std::size_t j = 0; j < sections.size(); ++j)
        PyList_SET_ITEM(out.ptr(), static_cast<Py_ssize_t>(j), SectionArray(sections[j], m.Restored(), self, false).release().ptr());
    return out;
}

namespace {

std::int64_t Nanoseconds(const tool::Timestamp& t) { return t.sec * 1000000000 + t.nsec; }

}  // namespace

std::unique_ptr<Message> Message::Make(const char* wire, std::size_t n, const trdcomp::RestoreOptions& options, bool raise) {
    auto m = std::make_unique<Message>();
    m->wireSize_ = n;
    // One block: the message's bytes, then the restored bytes.
    const tool::Allocate allocate = [&](std::size_t restored) {
        m->block_.reset(new char[n + restored]);
        return m->block_.get() + n;
    };
    try {
        if (raise) {  // a call of its own (decode, records): other threads run meanwhile
            py::gil_scoped_release unlocked;
            m->view_ = tool::DecodeInto(wire, n, options, allocate, m->restored_);
        } else {
            m->view_ = tool::DecodeInto(wire, n, options, allocate, m->restored_);
        }
        m->decoded_ = true;
    } catch (const tool::OverLimit& e) {
        if (raise) throw py::value_error(OverLimitText(e));
        m->refused_ = OverLimitText(e);
    } catch (const tool::Refused& e) {
        if (raise) throw py::value_error(std::string("the library refused the message: ") + e.what());
        m->refused_ = e.what();
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        if (raise) throw py::value_error(e.what());
        m->refused_ = e.what();
    }
    if (!m->block_) {
        m->block_.reset(new char[n ? n : 1]);
        m->restored_ = nullptr;
    }
    if (n) std::memcpy(m->block_.get(), wire, n);
    return m;
}

std::string OverLimitText(const tool::OverLimit& e) {
    return "the message restores to " + std::to_string(e.needed) + " bytes, more than max_bytes (" + std::to_string(e.limit) + ")";
}

std::size_t MaxBytesOf(const py::object& maxBytes) {
    if (maxBytes.is_none()) return static_cast<std::size_t>(-1);
    if (!py::isinstance<py::int_>(maxBytes) || py::isinstance<py::bool_>(maxBytes))
        throw py::type_error("max_bytes must be a number of bytes or None, not " +
                             std::string(py::str(maxBytes.get_type().attr("__name__"))));
    const long long v = maxBytes.cast<long long>();
    if (v < 0) throw py::value_error("max_bytes is " + std::to_string(v) + ": it must be 0 or more (None: no limit)");
    return static_cast<std::size_t>(v);
}

py::object DictOf(const tool::Decoded& m) {
    PythonSink sink;
    tool::DescribeMessage(m, sink);
    return sink.Take();
}

py::array SectionArray(const tool::SectionView& s, const char* data, const py::handle& owner, bool writable) {
    const py::dtype& type = SectionDtype(s);
    const auto& api = py::detail::npy_api::get();
    if (s.records == 0 || data == nullptr) {
        Py_intptr_t none[1] = {0};
        PyObject* empty = api.PyArray_NewFromDescr_(api.PyArray_Type_, type.inc_ref().ptr(), 1, none, nullptr, nullptr, 0, nullptr);
        if (empty == nullptr) throw py::error_already_set();
        return py::reinterpret_steal<py::array>(empty);
    }
    // NumPy's own maker, without pybind11's copies of the shape: a view of
    // `owner`'s memory that keeps it alive.
    Py_intptr_t shape[1] = {static_cast<Py_intptr_t>(s.records)};
    Py_intptr_t strides[1] = {s.slot};
    PyObject* array = api.PyArray_NewFromDescr_(api.PyArray_Type_, type.inc_ref().ptr(), 1, shape, strides,
                                                const_cast<char*>(data + s.at), writable ? py::detail::npy_api::NPY_ARRAY_WRITEABLE_ : 0,
                                                nullptr);
    if (array == nullptr) throw py::error_already_set();
    py::array out = py::reinterpret_steal<py::array>(array);
    if (api.PyArray_SetBaseObject_(array, owner.inc_ref().ptr()) != 0) throw py::error_already_set();
    return out;
}

void BindMessage(py::module_& module) {
    py::class_<Message>(module, "Message", py::buffer_protocol(), R"(A message of the wire, restored once.

Its records stay where they were restored: `sections` shows them as NumPy
structured arrays (one per section, the dtype of its layout, see `dtype`)
without copying them, `raw` the message's bytes. A message the library
refused has `refused` (the reason) and no sections. Messages of a stream or
capture say where they were found: `number`, `offset`, and for a capture
`time` and `connection`.)")
        .def_buffer([](Message& self) {
            return py::buffer_info(const_cast<char*>(self.Wire()), 1, py::format_descriptor<std::uint8_t>::format(), 1,
                                   {static_cast<py::ssize_t>(self.WireSize())}, {1}, true);
        })
        .def_property_readonly(
            "function_id",
            [](const Message& self) -> py::object {
                if (!self.Refused()) return py::int_(self.View().functionId);
                if (self.WireSize() < head::kRoutingBytes || head::DirectionOf(self.Wire(), self.WireSize()) == head::kNoMessage)
                    return py::none();
                return py::int_(head::Load(self.Wire(), head::kFunctionIdAt));
            },
            "The head's function id (None for bytes that are no message).")
        .def_property_readonly(
            "direction",
            [](const Message& self) -> py::object {
                const head::Direction d = head::DirectionOf(self.Wire(), self.WireSize());
                if (d == head::kNoMessage) return py::none();
                return py::str(d == head::kRequest ? "request" : "answer");
            },
            "\"request\" or \"answer\" (None for bytes that are no message).")
        .def_property_readonly(
            "coding",
            [](const Message& self) -> py::object {
                if (!self.Refused()) return py::str(CodingOf(self.View()));
                if (self.WireSize() < head::kRoutingBytes) return py::none();
                return py::str(tool::CodingName(head::FastVersion(head::Load(self.Wire(), head::kFlagsAt))));
            },
            "\"2008\", or \"fast:V\" for the Fast coding of version V.")
        .def_property_readonly(
            "refused", [](const Message& self) -> py::object { return self.Refused() ? py::object(py::str(self.Reason())) : py::none(); },
            "Why the library refused the message, or None.")
        .def_property_readonly(
            "head",
            [](const py::object& self) {
                Message& m = self.cast<Message&>();
                if (!m.head) m.head = HeadDict(m);
                return m.head;
            },
            "The head as the sender wrote it: the dict `decode` gives as \"head\".")
        .def_property_readonly(
            "sections",
            &SectionsOf,
            "One read-only NumPy structured array per section, over the restored block (no copy).")
        .def_property_readonly(
            "raw", [](const py::object& self) { return py::memoryview(self); }, "The message's bytes (a read-only memoryview).")
        .def_property_readonly(
            "number", [](const Message& self) { return self.found.number; },
            "Its place among the messages of its stream or capture (1, 2, ...; 0 for a message decoded alone).")
        .def_property_readonly(
            "offset", [](const Message& self) { return self.found.offset; },
            "Where it starts in its stream (for a capture: in its direction of its connection).")
        .def_property_readonly(
            "time",
            [](const Message& self) -> py::object {
                if (!self.found.timed) return py::none();
                return py::float_(static_cast<double>(self.found.time.sec) + self.found.time.nsec * 1e-9);
            },
            "Capture time of the packet that completed it, in seconds since 1970 (None outside a capture).")
        .def_property_readonly(
            "time_ns",
            [](const Message& self) -> py::object {
                if (!self.found.timed) return py::none();
                return py::int_(Nanoseconds(self.found.time));
            },
            "The same in nanoseconds, exact.")
        .def_property_readonly(
            "connection",
            [](const Message& self) -> py::object {
                if (self.found.connection.empty()) return py::none();
                return py::str(self.found.connection);
            },
            "\"10.0.0.1:40000 -> 10.0.0.2:9000\": the direction of the TCP connection that carried it (None outside a capture).")
        .def(
            "to_dict",
            [](const Message& self) -> py::object {
                if (self.Refused()) return RefusedDict(self);
                return DictOf(self.CopyOut());
            },
            R"(The message as `decode` returns it (the dict `trdcomp decode --json`
prints); for a refused message: bytes, direction, id, coding and refused, as
the tool's JSON lines give a refusal.)")
        .def("__len__", [](const Message& self) { return self.WireSize(); })
        .def("__repr__", [](const Message& self) {
            const head::Direction d = head::DirectionOf(self.Wire(), self.WireSize());
            std::string text = "<trdcomp.Message ";
            if (d == head::kNoMessage) text += "of no head";
            else text += std::string(d == head::kRequest ? "request " : "answer ") +
                         std::to_string(self.WireSize() >= head::kRoutingBytes ? head::Load(self.Wire(), head::kFunctionIdAt) : 0);
            if (!self.Refused()) text += " " + CodingOf(self.View());
            text += ", " + std::to_string(self.WireSize()) + " bytes";
            if (self.Refused()) text += ", refused: " + self.Reason();
            else if (!self.View().sections.empty()) {
                text += ", records";
                for (const tool::SectionView& s : self.View().sections) text += " " + std::to_string(s.records);
            }
            return text + ">";
        });
}

}  // namespace trdcomp_python
