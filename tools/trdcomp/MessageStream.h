// Messages back to back in a byte stream, cut as their bytes arrive: the
// bytes are pushed in (a file read in chunks, a pipe, the reassembled payload
// of one direction of a TCP connection), and each message comes out as soon
// as its last byte is there. Only the message in progress is kept, so the
// memory a stream needs is bounded by its largest message, not by its length.
// What cannot be cut comes out as a report, never as an exception.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace tool {

// How messages are delimited: by their own bytes (trdcomp::MessageLength),
// or by a length prefix of the transport in front of each (the length of
// the message behind it, prefix excluded).
enum class Frame { message, u32le, u32be, u16le, u16be };
// The frame a name gives ("message" or "", "u32le", ...); false for another name.
bool ParseFrame(const std::string& text, Frame& frame);

// What a reader says besides messages.
enum class ReportKind {
    skipped,     // bytes left out until messages frame consistently (a stream picked up in its middle, after a gap or after bytes that are no message)
    incomplete,  // the input ended inside a message
    stopped,     // no message starts here, or one that does not carry its length: the rest is not cut
    too_long,    // a message longer than the limit, left out
    gap,         // bytes the capture lacks
    conflict,    // a retransmission whose bytes differ from those first captured (the first are kept)
    cut,         // the capture ends inside a packet
    link_type,   // a capture of a link type that is not read
    unreadable,  // the input cannot be read
    fragments,   // IP fragments whose datagram never completed
};
// "skipped", "incomplete", ... (the word the JSON and the summaries use).
const char* ReportKindName(ReportKind kind);
// True for the reports that mean bytes of the input were not decoded.
bool LosesBytes(ReportKind kind);

struct Report {
    ReportKind kind = ReportKind::skipped;
    std::uint64_t offset = 0;  // the stream offset it concerns
    std::uint64_t bytes = 0;   // the bytes it concerns (skipped, missing, conflicting, left out)
    std::string text;          // a sentence for the reader, without the connection's name
};

// What a cutter hands out: a message (its bytes, valid until the next call
// of any member of the cutter) or a report.
struct Cut {
    bool isReport = false;
    std::uint64_t offset = 0;  // of the message, in the stream (behind its prefix)
    const char* data = nullptr;
    std::size_t size = 0;
    Report report;
};

// Bytes held for cutting: grown without clearing the room, the front let
// go by moving the rest down.
class HeldBytes {
public:
    std::size_t size() const { return size_; }
    char* data() { return data_.get(); }
    const char* data() const { return data_.get(); }
    // To n bytes; bytes added are not cleared (they are read into at once).
    void Resize(std::size_t n);
    void EraseFront(std::size_t n);
    void clear() { size_ = 0; }

private:
    std::unique_ptr<char[]> data_;
    std::size_t size_ = 0, capacity_ = 0;
};

class StreamCutter {
public:
    struct Options {
        Frame frame = Frame::message;
        // A message longer than this is left out (reported); it is also the
        // most the cutter holds of one message.
        std::size_t maxMessage = std::size_t{256} << 20;
        // The stream's start is missing: begin where consecutive messages
        // frame consistently, saying how many bytes were skipped.
        bool pickup = false;
        // On bytes that are no message, look for the next place where
        // messages frame consistently instead of stopping.
        bool resync = false;
        // The caller's name for the frame, in the report of a message that does not carry its length.
        const char* frameOption = "--frame";
    };

    explicit StreamCutter(const Options& options);

    void Push(const char* p, std::size_t n);
    // Room for up to n bytes at the end, to read into; Commit says how many came.
    char* Room(std::size_t n);
    void Commit(std::size_t n);
    // `missing` bytes of the stream are lost at the end of what was pushed:
    // the message in progress is lost, and cutting goes on where messages
    // frame consistently again. `why` completes the report's sentence.
    void Gap(std::uint64_t missing, const std::string& why);
    // No more bytes will come.
    void Finish();

    // The next message or report; false when there is none until more bytes
    // come (or none at all, after Finish or once stopped).
    bool Next(Cut& out);

    // A stream cut by its own lengths stopped at bytes that are no message
    // (Options::resync off): what is pushed from now on is dropped.
    bool Stopped() const { return stopped_; }
    // The stream offset of the end of what was pushed (gaps included).
    std::uint64_t End() const { return end_; }
    // Bytes held for the message in progress.
    std::size_t Held() const { return buf_.size() - head_; }

private:
    struct Mark {
        std::uint64_t offset;   // stream offset where the bytes went missing
        std::uint64_t missing;
        std::string why;
    };
    enum class Step { wait, progress };

    Step Cut1();
    Step CutSynced(std::size_t limit);
    Step Resync(std::size_t limit);
    // The framing of the bytes at buffer position `at` (up to limit): the
    // message's length behind `skip` prefix bytes, or why there is none.
    enum class Look { complete, need_more, invalid, no_length, too_long };
    Look Frame1(std::size_t at, std::size_t limit, std::size_t& skip, std::size_t& length, std::size_t& want) const;
    void Emit(ReportKind kind, std::uint64_t offset, std::uint64_t bytes, std::string text);
    // The bytes from skipFrom_ to upTo were skipped; `found`: messages frame
    // again at upTo (a stream picked up says so even when nothing was skipped).
    void EmitSkipped(std::uint64_t upTo, const std::string& why, bool found);
    void Consume(std::size_t to);
    std::uint64_t OffsetAt(std::size_t pos) const { return base_ + pos; }

    Options options_;
    HeldBytes buf_;
    std::size_t head_ = 0;       // buffer position of the next byte to cut
    std::uint64_t base_ = 0;     // stream offset of buf_[0]
    std::uint64_t end_ = 0;      // stream offset of the end of what was pushed
    std::size_t want_ = 0;       // buffer size before which the framing cannot change
    bool synced_ = true;
    bool finished_ = false;
    bool stopped_ = false;
    bool drained_ = false;       // after Finish: what was left is reported
    std::size_t room_ = 0;       // bytes Room added that Commit has not confirmed
    std::uint64_t skipFrom_ = 0; // while not synced: where the skipped bytes began
    std::string skipWhy_;        // ... and why
    std::size_t scan_ = 0;       // while not synced: the next candidate position
    std::uint64_t discard_ = 0;  // bytes of a message too long, still to drop as they come
    std::deque<Mark> marks_;
    std::deque<Cut> out_;        // reports waiting, then at most one message
};

}  // namespace tool
