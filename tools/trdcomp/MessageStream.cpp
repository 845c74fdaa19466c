#include "MessageStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "Fields.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace {

int PrefixWidth(Frame f) { return f == Frame::u32le || f == Frame::u32be ? 4 : f == Frame::message ? 0 : 2; }

std::size_t PrefixValue(const char* p, int width, bool big) {
    std::size_t v = 0;
    for (int i = 0; i < width; ++i)
        v |= static_cast<std::size_t>(static_cast<unsigned char>(p[big ? width - 1 - i : i])) << (8 * i);
    return v;
}

std::string Bytes(std::uint64_t n) { return Plural(static_cast<long long>(n), "byte"); }

}  // namespace

bool ParseFrame(const std::string& text, Frame& frame) {
    static const std::pair<const char*, Frame> kNames[] = {{"", Frame::message},          {"message", Frame::message},
                                                           {"u32le", Frame::u32le},       {"u32be", Frame::u32be},
                                                           {"u16le", Frame::u16le},       {"u16be", Frame::u16be}};
    for (const auto& [name, f] : kNames)
        if (text == name) {
            frame = f;
            return true;
        }
    return false;
}

const char* ReportKindName(ReportKind kind) {
    switch (kind) {
        case ReportKind::skipped: return "skipped";
        case ReportKind::incomplete: return "incomplete";
        case ReportKind::stopped: return "stopped";
        case ReportKind::too_long: return "too_long";
        case ReportKind::gap: return "gap";
        case ReportKind::conflict: return "conflict";
        case ReportKind::cut: return "cut";
        case ReportKind::link_type: return "link_type";
        case ReportKind::unreadable: return "unreadable";
        case ReportKind::fragments: return "fragments";
    }
    return "";
}

bool LosesBytes(ReportKind kind) { return kind != ReportKind::conflict; }

void HeldBytes::Resize(std::size_t n) {
    if (n > capacity_) {
        const std::size_t capacity = std::max(n, 2 * capacity_);
        std::unique_ptr<char[]> bigger(new char[capacity]);
        if (size_ > 0) std::memcpy(bigger.get(), data_.get(), size_);
        data_ = std::move(bigger);
        capacity_ = capacity;
    }
    size_ = n;
}

void HeldBytes::EraseFront(std::size_t n) {
    n = std::min(n, size_);
    if (n < size_) std::memmove(data_.get(), data_.get() + n, size_ - n);
    size_ -= n;
}

StreamCutter::StreamCutter(const Options& options) : options_(options), synced_(!options.pickup) {
    if (options.pickup) skipWhy_ = "the start of the stream is missing";
}

void StreamCutter::Push(const char* p, std::size_t n) {
    if (n == 0) return;
    std::memcpy(Room(n), p, n);
    Commit(n);
}

char* StreamCutter::Room(std::size_t n) {
    // Bytes already cut are dropped once they are half the buffer, so that
    // moving the rest costs no more than cutting it did.
    if (head_ > 0 && (head_ >= buf_.size() / 2 || head_ >= (std::size_t{1} << 20))) {
        buf_.EraseFront(head_);
        base_ += head_;
        scan_ = scan_ > head_ ? scan_ - head_ : 0;
        want_ = want_ > head_ ? want_ - head_ : 0;
        head_ = 0;
    }
    const std::size_t at = buf_.size();
    buf_.Resize(at + n);
    room_ = n;
    return buf_.data() + at;
}

void StreamCutter::Commit(std::size_t n) {
    // Room grew the buffer by its n; only these came.
    n = std::min(n, room_);
    buf_.Resize(buf_.size() - (room_ - n));
    room_ = 0;
    end_ += n;
    if (stopped_) {
        buf_.clear();
        head_ = 0;
    }
}

void StreamCutter::Gap(std::uint64_t missing, const std::string& why) {
    marks_.push_back(Mark{end_, missing, why});
    end_ += missing;
}

void StreamCutter::Finish() { finished_ = true; }

void StreamCutter::Emit(ReportKind kind, std::uint64_t offset, std::uint64_t bytes, std::string text) {
    Cut c;
    c.isReport = true;
    c.offset = offset;
    c.report = Report{kind, offset, bytes, std::move(text)};
    out_.push_back(std::move(c));
}

void StreamCutter::EmitSkipped(std::uint64_t upTo, const std::string& why, bool found) {
    const std::uint64_t n = upTo > skipFrom_ ? upTo - skipFrom_ : 0;
    if (n == 0 && !(found && options_.pickup && skipFrom_ == 0)) return;
    Emit(ReportKind::skipped, skipFrom_, n,
         (n == 0 ? "picked up at offset " + std::to_string(upTo) + " (" + why + ")"
                 : Bytes(n) + " skipped from offset " + std::to_string(skipFrom_) + " (" + why + ")"));
}

void StreamCutter::Consume(std::size_t to) {
    head_ = to;
    if (want_ < head_) want_ = 0;
    if (scan_ < head_) scan_ = head_;
}

bool StreamCutter::Next(Cut& out) {
    for (;;) {
        if (!out_.empty()) {
            out = std::move(out_.front());
            out_.pop_front();
            return true;
        }
        if (stopped_ || Cut1() == Step::wait) return false;
    }
}

StreamCutter::Look StreamCutter::Frame1(std::size_t at, std::size_t limit, std::size_t& skip, std::size_t& length,
                                         std::size_t& want) const {
    const std::size_t avail = limit - at;
    const char* p = buf_.data() + at;
    skip = 0;
    if (options_.frame == Frame::message) {
        const trdcomp::FrameLength f = trdcomp::MessageLength(p, avail);
        switch (f.status) {
            case trdcomp::Framing::complete:
                // The length words tell the length before the last bytes are there.
                length = f.length;
                if (f.length > options_.maxMessage) return Look::too_long;
                if (f.length > avail) {
                    want = f.length;
                    length = 0;
                    return Look::need_more;
                }
                return Look::complete;
            case trdcomp::Framing::need_more:
                want = f.length;
                length = 0;
                return f.length > options_.maxMessage ? Look::too_long : Look::need_more;
            case trdcomp::Framing::cannot_tell: return Look::no_length;
            case trdcomp::Framing::invalid: return Look::invalid;
        }
        return Look::invalid;
    }
    const int width = PrefixWidth(options_.frame);
    if (avail < static_cast<std::size_t>(width)) {
        want = static_cast<std::size_t>(width);
        return Look::need_more;
    }
    skip = static_cast<std::size_t>(width);
    length = PrefixValue(p, width, options_.frame == Frame::u32be || options_.frame == Frame::u16be);
    if (length > options_.maxMessage) return Look::too_long;
    if (avail - skip < length) {
        want = skip + length;
        return Look::need_more;
    }
    return Look::complete;
}

StreamCutter::Step StreamCutter::Cut1() {
    const std::size_t limit = marks_.empty() ? buf_.size() : static_cast<std::size_t>(marks_.front().offset - base_);
    if ((synced_ ? CutSynced(limit) : Resync(limit)) == Step::progress) return Step::progress;
    if (!marks_.empty()) {
        // The bytes before the gap are all there will be.
        const Mark m = std::move(marks_.front());
        marks_.pop_front();
        if (synced_ && head_ < limit)
            Emit(ReportKind::skipped, OffsetAt(head_), limit - head_,
                 Bytes(limit - head_) + " from offset " + std::to_string(OffsetAt(head_)) + " left out: a message cut short by the gap");
        else if (!synced_)
            EmitSkipped(m.offset, skipWhy_, false);
        Emit(ReportKind::gap, m.offset, m.missing,
             Bytes(m.missing) + " missing from the capture at stream offset " + std::to_string(m.offset) + (m.why.empty() ? "" : " (" + m.why + ")"));
        buf_.EraseFront(limit);
        base_ = m.offset + m.missing;
        head_ = scan_ = want_ = 0;
        synced_ = false;
        skipFrom_ = base_;
        skipWhy_ = "after the gap";
        return Step::progress;
    }
    if (!finished_ || drained_) return Step::wait;
    drained_ = true;
    const std::size_t left = buf_.size() - head_;
    if (!synced_) {
        EmitSkipped(OffsetAt(buf_.size()), skipWhy_, false);
    } else if (discard_ == 0 && left > 0) {
        const int width = PrefixWidth(options_.frame);
        std::string what = "an incomplete message";
        if (width && left < static_cast<std::size_t>(width)) {
            what = "an incomplete length prefix";
        } else if (width) {
            const std::size_t announced = PrefixValue(buf_.data() + head_, width, options_.frame == Frame::u32be || options_.frame == Frame::u16be);
            Emit(ReportKind::incomplete, OffsetAt(head_), left,
                 "the prefix at offset " + std::to_string(OffsetAt(head_)) + " announces " + Bytes(announced) + " but only " +
                     std::to_string(left - static_cast<std::size_t>(width)) + (left - width == 1 ? " follows" : " follow"));
            what.clear();
        }
        if (!what.empty())
            Emit(ReportKind::incomplete, OffsetAt(head_), left,
                 "the last " + Bytes(left) + " (from offset " + std::to_string(OffsetAt(head_)) + (left == 1 ? ") is " : ") are ") + what);
    }
    buf_.clear();
    base_ = end_;
    head_ = scan_ = want_ = 0;
    synced_ = true;
    discard_ = 0;
    return Step::progress;
}

StreamCutter::Step StreamCutter::CutSynced(std::size_t limit) {
    if (head_ >= limit) return Step::wait;
    if (discard_ > 0) {
        const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(discard_, limit - head_));
        discard_ -= n;
        Consume(head_ + n);
        return Step::progress;
    }
    if (limit < want_) return Step::wait;
    std::size_t skip = 0, length = 0, want = 0;
    const std::uint64_t at = OffsetAt(head_);
    const Look look = Frame1(head_, limit, skip, length, want);
    switch (look) {
        case Look::complete:
            out_.push_back(Cut{false, at + skip, buf_.data() + head_ + skip, length, {}});
            Consume(head_ + skip + length);
            want_ = 0;
            return Step::progress;
        case Look::need_more:
            want_ = head_ + want;
            return Step::wait;
        case Look::too_long:
            if (length > 0) {
                // Its length is known: its bytes are dropped as they come.
                Emit(ReportKind::too_long, at + skip, length,
                     "the message at offset " + std::to_string(at + skip) + " is " + Bytes(length) + ", more than the limit of " +
                         Bytes(options_.maxMessage) + ": left out");
                discard_ = skip + length;
                want_ = 0;
                return Step::progress;
            }
            synced_ = false;
            skipFrom_ = at;
            skipWhy_ = "a message at offset " + std::to_string(at) + " is longer than the limit of " + Bytes(options_.maxMessage);
            Consume(head_ + 1);
            return Step::progress;
        case Look::invalid:
        case Look::no_length: {
            const std::string why =
                look == Look::no_length ? "the message at offset " + std::to_string(at) +
                               " does not carry its length (its records travel raw): name the transport's length prefix with " + options_.frameOption
                         : "no message starts at offset " + std::to_string(at) +
                               " (head word 0 must be 76 or 96, and the lengths inside the message in range)";
            if (!options_.resync) {
                Emit(ReportKind::stopped, at, end_ - at, why);
                stopped_ = true;
                buf_.clear();
                head_ = scan_ = want_ = 0;
                return Step::progress;
            }
            synced_ = false;
            skipFrom_ = at;
            skipWhy_ = why;
            Consume(head_ + 1);
            return Step::progress;
        }
    }
    return Step::wait;
}

StreamCutter::Step StreamCutter::Resync(std::size_t limit) {
    const bool final = finished_ || !marks_.empty();
    if (scan_ < head_) scan_ = head_;
    if (!final && limit < want_) return Step::wait;
    while (scan_ < limit) {
        std::size_t skip = 0, length = 0, want = 0;
        Look look = Frame1(scan_, limit, skip, length, want);
        if (look == Look::complete && options_.frame != Frame::message) {
            // A prefix frames anything: its message must at least have a head
            // and, where the message tells its own length, the same length.
            const char* m = buf_.data() + scan_ + skip;
            const trdcomp::FrameLength f = trdcomp::MessageLength(m, length);
            if (trdcomp::head::DirectionOf(m, length) == trdcomp::head::kNoMessage ||
                (f.status == trdcomp::Framing::complete && f.length != length) || f.status == trdcomp::Framing::invalid)
                look = Look::invalid;
        }
        if (look == Look::need_more && !final) {
            want_ = scan_ + want;
            head_ = scan_;
            return Step::wait;
        }
        if (look != Look::complete) {
            ++scan_;
            continue;
        }
        // The message behind it must frame as well (or the input ends there).
        const std::size_t next = scan_ + skip + length;
        bool consistent = next == limit && final;
        if (next < limit) {
            std::size_t skip2 = 0, length2 = 0, want2 = 0;
            const Look second = Frame1(next, limit, skip2, length2, want2);
            if (second == Look::need_more && !final) {
                want_ = next + want2;
                head_ = scan_;
                return Step::wait;
            }
            // A raw request behind it has a head, if no length.
            consistent = second == Look::complete || second == Look::need_more || second == Look::no_length;
            if (second == Look::complete && options_.frame != Frame::message &&
                trdcomp::head::DirectionOf(buf_.data() + next + skip2, length2) == trdcomp::head::kNoMessage)
                consistent = false;
        } else if (!final) {
            want_ = next + 1;
            head_ = scan_;
            return Step::wait;
        }
        if (!consistent) {
            ++scan_;
            continue;
        }
        EmitSkipped(OffsetAt(scan_), skipWhy_, true);
        head_ = scan_;
        want_ = 0;
        synced_ = true;
        return Step::progress;
    }
    head_ = scan_;
    return Step::wait;
}

}  // namespace tool
