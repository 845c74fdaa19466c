// trdcomp.messages and trdcomp.pcap: the messages of a stream or a capture
// as they come, cut and reassembled by the message library (StreamCutter,
// CaptureReader), each restored into a trdcomp.Message; what the library
// reports besides messages (bytes skipped, gaps, ...) is kept as
// trdcomp.Report objects in the iterator's `reports`.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Buffer.h"
#include "Iterate.h"
#include "PyMessage.h"
#include "trdcomp/MessageHead.hpp"

namespace py = pybind11;

namespace trdcomp_python {

namespace {

namespace head = trdcomp::head;

// Bytes a read of a file asks for, and a buffer is pushed in: a piece the
// cutter copies and cuts while it is in the cache.
constexpr std::size_t kChunk = std::size_t{64} << 10;
// What a restore may need, and a message may be long, unless the caller says otherwise.
constexpr std::size_t kDefaultMaxBytes = std::size_t{256} << 20;

// The words this module's callers know in the library's reports.
tool::OptionNames PythonNames() {
    tool::OptionNames names;
    names.frame = "frame=";
    return names;
}

struct Report {
    std::string kind, text;
    std::uint64_t offset = 0, bytes = 0;
    std::optional<std::string> connection;
};

std::string TypeName(const py::handle& o) { return py::str(o.get_type().attr("__name__")); }

// What both feeds share: the restore, which messages count, the reports.
class Feed {
public:
    Feed(const py::object& maxBytes, bool strict, const py::object& ids, const py::object& frame) : strict_(strict) {
        options_.maxBytes = MaxBytesOf(maxBytes);
        options_.strict = strict;
        cut_.maxMessage = options_.maxBytes;
        cut_.frameOption = PythonNames().frame;
        if (!frame.is_none()) {
            if (!py::isinstance<py::str>(frame)) throw py::type_error("frame must be a str or None, not " + TypeName(frame));
            if (!tool::ParseFrame(frame.cast<std::string>(), cut_.frame))
                throw py::value_error("frame is \"" + frame.cast<std::string>() +
                                      "\": expected None (the messages' own lengths), \"u32le\", \"u32be\", \"u16le\" or \"u16be\"");
        }
        if (!ids.is_none()) {
            if (py::isinstance<py::int_>(ids)) {
                ids_.push_back(IdOf(ids));
            } else {
                try {
                    for (const py::handle id : py::iter(ids)) ids_.push_back(IdOf(id));
                } catch (const py::error_already_set& e) {
                    if (!e.matches(PyExc_TypeError)) throw;
                    throw py::type_error("ids must be a function id, an iterable of them, or None, not " + TypeName(ids));
                }
                if (ids_.empty()) throw py::value_error("ids is empty: no message would be kept (None keeps them all)");
            }
            std::sort(ids_.begin(), ids_.end());
        }
    }

    py::list reports;

protected:
    // A message of the feed: the Message, or none when `ids` leaves it out.
    py::object Take(const tool::Cut& cut, const tool::Flow* flow, tool::Timestamp time) {
        const std::uint64_t number = ++number_;
        if (!ids_.empty()) {
            if (head::DirectionOf(cut.data, cut.size) == head::kNoMessage || cut.size < head::kRoutingBytes) return py::object();
            const std::int32_t id = head::Load(cut.data, head::kFunctionIdAt);
            if (!std::binary_search(ids_.begin(), ids_.end(), id)) return py::object();
        }
        std::unique_ptr<Message> m = Message::Make(cut.data, cut.size, options_, false);
        m->found.number = number;
        m->found.offset = cut.offset;
        if (flow != nullptr && flow->connection != 0) {
            m->found.timed = true;
            m->found.time = time;
            m->found.connection = flow->name;
        }
        if (strict_ && m->Refused())
            throw py::value_error("message " + std::to_string(number) + " (offset " + std::to_string(cut.offset) +
                                  (m->found.connection.empty() ? "" : ", " + m->found.connection) + ") refused: " + m->Reason());
        return py::cast(std::move(m));
    }

    void Reported(const tool::Report& r, const tool::Flow* flow) {
        Report out{tool::ReportKindName(r.kind), r.text, r.offset, r.bytes, std::nullopt};
        if (flow != nullptr && flow->connection != 0) out.connection = flow->name;
        // As the tool counts problems: everything but a pickup that skipped nothing.
        if (strict_ && (r.kind != tool::ReportKind::skipped || r.bytes > 0))
            throw py::value_error(out.kind + ": " + (out.connection ? *out.connection + ", " : "") + out.text);
        reports.append(py::cast(std::move(out)));
    }

    tool::StreamCutter::Options cut_;

private:
    static std::int32_t IdOf(const py::handle& id) {
        if (!py::isinstance<py::int_>(id) || py::isinstance<py::bool_>(id))
            throw py::type_error("ids must hold function ids (int), not " + TypeName(id));
        const long long v = id.cast<long long>();
        if (v < INT32_MIN || v > INT32_MAX) throw py::value_error("ids holds " + std::to_string(v) + ", which is no 32-bit function id");
        return static_cast<std::int32_t>(v);
    }

    trdcomp::RestoreOptions options_;
    bool strict_;
    std::vector<std::int32_t> ids_;  // sorted; none: every message
    std::uint64_t number_ = 0;
};

// A binary file's way of reading: into the cutter's room (no copy), at most
// one read of the file underneath (readinto1: a pipe's bytes are handed on
// as they come, not once 64 KiB have gathered), else read.
struct Reading {
    py::object readinto, read;
    static Reading Of(const py::object& file, const char* what) {
        Reading r;
        if (py::hasattr(file, "readinto1")) r.readinto = file.attr("readinto1");
        else if (py::hasattr(file, "readinto")) r.readinto = file.attr("readinto");
        else if (py::hasattr(file, "read")) r.read = file.attr("read");
        else throw py::type_error(std::string(what) + " must be bytes, a buffer, a path or a binary file, not " + TypeName(file));
        if (py::hasattr(file, "encoding") && !py::hasattr(file, "readinto"))
            throw py::type_error(std::string(what) + " is a text file: open it in binary mode (\"rb\")");
        return r;
    }
    // Reads up to n bytes into p: the count, 0 at the end.
    std::size_t Into(char* p, std::size_t n) const {
        if (readinto) {
            const py::object got = readinto(py::memoryview::from_memory(p, static_cast<py::ssize_t>(n)));
            return got.is_none() ? 0 : std::min(n, got.cast<std::size_t>());
        }
        const py::object got = read(n);
        if (py::isinstance<py::str>(got)) throw py::type_error("the file gave text: open it in binary mode (\"rb\")");
        const ByteView bytes(got, "what the file's read() gave");
        const std::size_t k = std::min(n, bytes.size());
        std::memcpy(p, bytes.data(), k);
        return k;
    }
};

bool IsPath(const py::object& o) {
    return py::isinstance<py::str>(o) || py::hasattr(o, "__fspath__");
}

// Opens a path as Python does (OSError naming it).
py::object OpenBinary(const py::object& path) { return py::module_::import("io").attr("open")(path, "rb"); }

class StreamMessages : public Feed {
public:
    StreamMessages(const py::object& source, const py::object& frame, bool strict, const py::object& maxBytes, const py::object& ids)
        : Feed(maxBytes, strict, ids, frame), cutter_(cut_) {
        if (IsPath(source)) {
            file_ = OpenBinary(source);
            owned_ = true;
            reading_ = Reading::Of(file_, "source");
        } else if (PyObject_CheckBuffer(source.ptr())) {
            bytes_ = std::make_unique<ByteView>(source, "source");
        } else {
            reading_ = Reading::Of(source, "source");
        }
    }
    ~StreamMessages() { Close(); }

    py::object Next() {
        tool::Cut cut;
        for (;;) {
            if (cutter_.Next(cut)) {
                if (cut.isReport) {
                    Reported(cut.report, nullptr);
                    continue;
                }
                py::object m = Take(cut, nullptr, {});
                if (m) return m;
                continue;
            }
            if (finished_) {
                Close();
                throw py::stop_iteration();
            }
            Fill();
        }
    }

    std::uint64_t Bytes() const { return cutter_.End(); }

private:
    void Fill() {
        std::size_t n = 0;
        if (bytes_) {
            n = std::min(kChunk, bytes_->size() - pos_);
            cutter_.Push(bytes_->data() + pos_, n);
            pos_ += n;
        } else {
            char* room = cutter_.Room(kChunk);
            try {
                n = reading_.Into(room, kChunk);
            } catch (...) {
                cutter_.Commit(0);
                throw;
            }
            cutter_.Commit(n);
        }
        if (n == 0 || cutter_.Stopped()) {
            cutter_.Finish();
            finished_ = true;
        }
    }
    void Close() {
        bytes_.reset();
        if (owned_ && file_) file_.attr("close")();
        file_ = py::object();
    }

    tool::StreamCutter cutter_;
    std::unique_ptr<ByteView> bytes_;
    std::size_t pos_ = 0;
    py::object file_;
    bool owned_ = false;
    Reading reading_;
    bool finished_ = false;
};

class CaptureMessages : public Feed {
public:
    CaptureMessages(const py::object& source, const py::object& port, const py::object& frame, bool strict, const py::object& maxBytes,
                    const py::object& ids)
        : Feed(maxBytes, strict, ids, frame) {
        if (!tool::CapturesAvailable())
            throw py::import_error("this trdcomp was built without libpcap, so it reads no capture (Debian: libpcap-dev, then build again)");
        tool::TcpMessages::Options options;
        options.cutter = cut_;
        if (!port.is_none()) {
            if (!py::isinstance<py::int_>(port) || py::isinstance<py::bool_>(port))
                throw py::type_error("port must be a TCP port (int) or None, not " + TypeName(port));
            const long long p = port.cast<long long>();
            if (p < 1 || p > 65535) throw py::value_error("port is " + std::to_string(p) + ": a TCP port is 1 to 65535");
            options.port = static_cast<int>(p);
        }
        std::FILE* file = nullptr;
        if (IsPath(source)) {
            const std::string path = py::str(py::module_::import("os").attr("fsdecode")(source));
            file = std::fopen(path.c_str(), "rb");
            if (file == nullptr) {
                PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
                throw py::error_already_set();
            }
        } else {
            source_ = source;
            reading_ = Reading::Of(source, "path_or_file");
            cookie_io_functions_t io{};
            io.read = [](void* self, char* p, std::size_t n) -> ssize_t { return static_cast<CaptureMessages*>(self)->Read(p, n); };
            file = ::fopencookie(this, "r", io);
            if (file == nullptr) throw py::error_already_set();
        }
        reader_ = std::make_unique<tool::CaptureReader>(file, options);
    }

    py::object Next() {
        tool::TcpMessages::Item item;
        for (;;) {
            const bool got = reader_->Next(item);
            if (error_) {
                py::error_already_set e = std::move(*error_);
                error_.reset();
                throw e;
            }
            if (!got) throw py::stop_iteration();
            if (item.cut.isReport) {
                Reported(item.cut.report, item.flow);
                continue;
            }
            py::object m = Take(item.cut, item.flow, item.time);
            if (m) return m;
        }
    }

    py::dict Totals() const {
        const tool::TcpMessages::Totals& t = reader_->Counts();
        py::dict d;
        d["packets"] = t.packets;
        d["tcp_segments"] = t.tcpSegments;
        d["payload_bytes"] = t.payloadBytes;
        d["connections"] = t.connections;
        d["gaps"] = t.gaps;
        d["missing_bytes"] = t.missingBytes;
        d["conflicts"] = t.conflicts;
        d["other_packets"] = t.otherPackets;
        d["malformed"] = t.malformed;
        return d;
    }

private:
    // libpcap's read of a Python file object (the GIL is held: the iteration is a Python call).
    ssize_t Read(char* p, std::size_t n) {
        if (error_) return -1;
        try {
            return static_cast<ssize_t>(reading_.Into(p, n));
        } catch (py::error_already_set& e) {
            error_.emplace(std::move(e));
        } catch (const std::exception& e) {
            PyErr_SetString(PyExc_ValueError, e.what());
            error_.emplace();
        }
        errno = EIO;
        return -1;
    }

    py::object source_;
    Reading reading_;
    std::optional<py::error_already_set> error_;  // what the Python file raised, raised again by Next
    std::unique_ptr<tool::CaptureReader> reader_;
};

}  // namespace

std::size_t DefaultMaxBytes() { return kDefaultMaxBytes; }

void BindIteration(py::module_& m) {
    py::class_<Report>(m, "Report", R"(What a stream or capture said besides messages: bytes skipped until
messages framed again, a message the input ended inside, a gap in a
capture, a conflicting retransmission, ...)")
        .def_readonly("kind", &Report::kind,
                      "skipped, incomplete, stopped, too_long, gap, conflict, cut, link_type, unreadable or fragments")
        .def_readonly("offset", &Report::offset, "The stream offset it concerns.")
        .def_readonly("bytes", &Report::bytes, "The bytes it concerns.")
        .def_readonly("text", &Report::text, "What happened, in a sentence.")
        .def_readonly("connection", &Report::connection, "The direction of the connection (captures), or None.")
        .def("__repr__", [](const Report& r) {
            return "<trdcomp.Report " + r.kind + ": " + (r.connection ? *r.connection + ", " : "") + r.text + ">";
        });

    py::class_<StreamMessages>(m, "StreamMessages", "The iterator `messages` returns.")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &StreamMessages::Next)
        .def_readonly("reports", &StreamMessages::reports, "The reports so far (a list of trdcomp.Report).")
        .def_property_readonly("bytes_read", &StreamMessages::Bytes, "Bytes of the stream read so far.");
    py::class_<CaptureMessages>(m, "CaptureMessages", "The iterator `pcap` returns.")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &CaptureMessages::Next)
        .def_readonly("reports", &CaptureMessages::reports, "The reports so far (a list of trdcomp.Report).")
        .def_property_readonly("totals", &CaptureMessages::Totals,
                               "What the capture held so far: packets, tcp_segments, payload_bytes, connections, gaps, "
                               "missing_bytes, conflicts, other_packets, malformed.");

    const py::int_ defaultMaxBytes(kDefaultMaxBytes);
    m.def(
        "messages",
        [](const py::object& source, const py::object& frame, bool strict, const py::object& maxBytes, const py::object& ids) {
            return std::make_unique<StreamMessages>(source, frame, strict, maxBytes, ids);
        },
        py::arg("source"), py::kw_only(), py::arg("frame") = py::none(), py::arg("strict") = false, py::arg("max_bytes") = defaultMaxBytes,
        py::arg("ids") = py::none(),
        R"(The messages of a byte stream, one trdcomp.Message each, as their bytes come.

source: bytes or another contiguous buffer, a path, or a binary file or pipe
(read a megabyte at a time: what is held is the message in progress, not the
stream).
frame: None cuts by the messages' own lengths; "u32le", "u32be", "u16le" or
"u16be" by the transport's length prefix in front of each.
strict: the library's strict restore, and a refused message or bytes lost
raise ValueError instead of coming as a refused Message or a Report.
max_bytes: a message longer, or restoring to more, than this is left out
(reported) or refused; None: no limit.
ids: keep only messages of these function ids (an int or an iterable).

What is not a message (bytes skipped, an incomplete message at the end, a
stream that stops at bytes that are no message) is in the iterator's
`reports`.)");
    m.def(
        "pcap",
        [](const py::object& source, const py::object& port, const py::object& frame, bool strict, const py::object& maxBytes,
           const py::object& ids) { return std::make_unique<CaptureMessages>(source, port, frame, strict, maxBytes, ids); },
        py::arg("path_or_file"), py::kw_only(), py::arg("port") = py::none(), py::arg("frame") = py::none(), py::arg("strict") = false,
        py::arg("max_bytes") = defaultMaxBytes, py::arg("ids") = py::none(),
        R"(The messages of a packet capture (pcap or pcapng), one trdcomp.Message
each, in the order their last byte was captured: the TCP payload of each
direction of each connection reassembled and cut as `trdcomp decode --pcap`
does. Each message has `time` and `connection`.

path_or_file: a path, or a binary file or pipe (read as it comes).
port: only connections with this TCP port at either end.
frame, strict, max_bytes, ids: as for `messages`.

Gaps, conflicting retransmissions, a capture cut short and the like are in
the iterator's `reports`; its `totals` counts packets, connections and bytes.)");
}

}  // namespace trdcomp_python
