// trdcomp.Message: one message of the wire restored once, its records kept
// where they were restored and shown as NumPy arrays over that block; or a
// message the library refused, with the reason. Where a stream or capture
// held it comes along (its number, offset, capture time and connection).
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Capture.h"
#include "MessageView.h"

namespace trdcomp_python {

// Where a message was found in a stream or capture.
struct Found {
    std::uint64_t number = 0;  // 1, 2, ...: the messages of the feed in order
    std::uint64_t offset = 0;  // in the stream (of its direction, for a capture)
    bool timed = false;        // a capture's: the time of the packet that completed it
    tool::Timestamp time;
    std::string connection;    // a capture's: "10.0.0.1:40000 -> 10.0.0.2:9000"
};

class Message {
public:
    // Restores the n bytes at `wire` (copied into the message's own block,
    // the restored bytes behind them). A message the library refuses is
    // kept with the reason, or raises ValueError with `raise`.
    static std::unique_ptr<Message> Make(const char* wire, std::size_t n, const trdcomp::RestoreOptions& options, bool raise);

    bool Refused() const { return !decoded_; }
    const std::string& Reason() const { return refused_; }
    const tool::DecodedView& View() const { return view_; }
    const char* Wire() const { return block_.get(); }
    std::size_t WireSize() const { return wireSize_; }
    const char* Restored() const { return restored_; }
    // The message as Decode gives it (its bytes copied out).
    tool::Decoded CopyOut() const { return tool::CopyOut(view_, Wire(), wireSize_, restored_); }

    Found found;
    pybind11::object head;  // built when first asked for

private:
    std::unique_ptr<char[]> block_;  // the message's bytes, then the restored bytes
    std::size_t wireSize_ = 0;
    char* restored_ = nullptr;
    tool::DecodedView view_;
    bool decoded_ = false;
    std::string refused_;
};

// The ValueError text of a restore above max_bytes.
std::string OverLimitText(const tool::OverLimit& e);

// A restore limit from Python: None is none, else a count of bytes (0 or more).
std::size_t MaxBytesOf(const pybind11::object& maxBytes);

// A decoded message as the dict `trdcomp decode --json` prints.
pybind11::object DictOf(const tool::Decoded& m);

// The read-only section arrays of a trdcomp.Message (none for a refused
// one), views of its restored block that keep it alive.
pybind11::object SectionsOf(const pybind11::object& message);

// trdcomp.Message.
void BindMessage(pybind11::module_& m);

// The records of one section as an array of the layout's dtype (opaque
// records where they travelled raw) over `owner`'s memory at `data`.
pybind11::array SectionArray(const tool::SectionView& s, const char* data, const pybind11::handle& owner, bool writable);

}  // namespace trdcomp_python
