// trdcomp decode of a stream or capture (each message as soon as its last
// byte has come, as a table or one JSON object a line) and trdcomp stats.
#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "Capture.h"
#include "Commands.h"
#include "Feed.h"
#include "Input.h"
#include "Message.h"
#include "trdcomp/Inspect.hpp"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace head = trdcomp::head;

Filter ParseFilter(const std::string& ids, const std::string& dir) {
    Filter f;
    if (dir == "request") f.direction = head::kRequest;
    else if (dir == "answer") f.direction = head::kAnswer;
    else if (!dir.empty()) throw std::runtime_error("--dir " + dir + ": expected request or answer");
    std::stringstream list(ids);
    std::string item;
    while (std::getline(list, item, ',')) {
        const std::size_t dash = item.find('-', 1);
        auto number = [&](const std::string& t) {
            if (t.empty() || t.size() > 10 || t.find_first_not_of("0123456789") != std::string::npos || std::stoll(t) > 2147483647)
                throw std::runtime_error("--id " + ids + ": \"" + item + "\" is no function id or range of them (1002, 1100-1120)");
            return static_cast<std::int32_t>(std::stoll(t));
        };
        const std::int32_t lo = number(item.substr(0, dash));
        const std::int32_t hi = dash == std::string::npos ? lo : number(item.substr(dash + 1));
        if (hi < lo) throw std::runtime_error("--id " + ids + ": the range " + item + " runs backwards");
        f.ids.emplace_back(lo, hi);
    }
    if (!ids.empty() && f.ids.empty()) throw std::runtime_error("--id: expected function ids, as in 1002,1003,1100-1120");
    return f;
}

bool Filter::Keeps(const char* p, std::size_t n) const {
    if (direction == 0 && ids.empty()) return true;
    const head::Direction d = head::DirectionOf(p, n);
    if (direction != 0 && d != direction) return false;
    if (ids.empty()) return true;
    if (n < head::kRoutingBytes) return false;
    const std::int32_t id = head::Load(p, head::kFunctionIdAt);
    for (const auto& [lo, hi] : ids)
        if (id >= lo && id <= hi) return true;
    return false;
}

Feed::Feed(const FeedOptions& o, std::function<void()> onWait) {
    std::string error;
    if (!in_.Open(o.file, error)) throw std::runtime_error(error);
    in_.Follow(o.follow);
    in_.OnWait(std::move(onWait));
    StreamCutter::Options cut;
    if (!ParseFrame(o.frame, cut.frame))
        throw std::runtime_error("--frame " + o.frame + ": expected message, u32le, u32be, u16le or u16be");
    cut.maxMessage = ParseByteLimit(o.maxBytes);
    if (o.pcap) {
        if (!CapturesAvailable())
            throw std::runtime_error("this trdcomp was built without libpcap, so --pcap is unavailable "
                                     "(Debian: apt-get install libpcap-dev, then build again)");
        TcpMessages::Options options;
        options.port = o.port;
        options.cutter = cut;
        std::FILE* file = in_.AsFile();
        if (file == nullptr) throw std::runtime_error("cannot read " + in_.Name() + " as a capture");
        capture_ = std::make_unique<CaptureReader>(file, options);
    } else {
        stream_ = std::make_unique<StreamReader>(in_, cut);
    }
}

Feed::~Feed() = default;

bool Feed::Next(Found& out) {
    if (stream_) {
        out.flow = nullptr;
        return stream_->Next(out.cut);
    }
    TcpMessages::Item item;
    if (!capture_->Next(item)) return false;
    out.cut = std::move(item.cut);
    out.flow = item.flow;
    out.time = item.time;
    return true;
}

std::uint64_t Feed::BytesRead() const { return stream_ ? stream_->Bytes() : capture_->Counts().payloadBytes; }

const TcpMessages::Totals* Feed::Capture() const { return capture_ ? &capture_->Counts() : nullptr; }

Progress::Progress(bool on, const char* what) : on_(on && isatty(STDERR_FILENO)), what_(what), start_(Clock::now()), shown_(start_) {}

Progress::~Progress() {
    if (printed_) std::fputs("\r\033[K", stderr);
}

void Progress::Show(std::uint64_t messages, std::uint64_t bytes) {
    if (!on_) return;
    const Clock::time_point now = Clock::now();
    if (now - shown_ < std::chrono::milliseconds(500)) return;
    shown_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    std::fprintf(stderr, "\r\033[K%s: %llu messages, %.1f MB, %.0f messages/s", what_, static_cast<unsigned long long>(messages),
                 static_cast<double>(bytes) / 1e6, seconds > 0 ? static_cast<double>(messages) / seconds : 0.0);
    printed_ = true;
}

std::string Where(const Found& f) {
    if (f.flow == nullptr || f.flow->connection == 0) return "";
    return f.flow->name + ", ";
}

// A table whose columns are as wide as their widest cell, two spaces apart.
std::string Table(const std::vector<std::vector<std::string>>& rows, const std::string& indent, std::size_t rightFrom) {
    std::vector<std::size_t> width;
    for (const auto& row : rows)
        for (std::size_t c = 0; c < row.size(); ++c) {
            if (width.size() <= c) width.push_back(0);
            width[c] = std::max(width[c], row[c].size());
        }
    std::string text;
    for (const auto& row : rows) {
        std::string line = indent;
        for (std::size_t c = 0; c < row.size(); ++c) {
            const std::string pad(width[c] - row[c].size(), ' ');
            line += c >= rightFrom ? pad + row[c] : row[c] + (c + 1 < row.size() ? pad : "");
            if (c + 1 < row.size()) line += "  ";
        }
        text += line + "\n";
    }
    return text;
}

namespace {

// A message of the feed as the tables count it: its direction ("no
// message" for bytes a transport prefix framed that are none), id and coding.
struct Kind {
    int direction = 0;  // head::Direction
    std::int32_t id = 0;
    int coding = -1;    // the Fast version, 0 for 2008; -1: no message
    bool operator<(const Kind& o) const { return std::tie(direction, id, coding) < std::tie(o.direction, o.id, o.coding); }
};

Kind KindOf(const char* p, std::size_t n) {
    Kind k;
    k.direction = head::DirectionOf(p, n);
    if (k.direction == head::kNoMessage || n < head::kRoutingBytes) return Kind{};
    k.id = head::Load(p, head::kFunctionIdAt);
    k.coding = head::FastVersion(head::Load(p, head::kFlagsAt));
    return k;
}

std::vector<std::string> KindCells(const Kind& k) {
    if (k.direction == head::kNoMessage) return {"no message", "-", "-"};
    return {k.direction == head::kRequest ? "request" : "answer", std::to_string(k.id), CodingName(k.coding)};
}

trdcomp::RestoreOptions RestoreOptionsOf(const FeedOptions& o) {
    trdcomp::RestoreOptions options;
    options.flag = static_cast<char>(o.flag);
    options.maxBytes = ParseByteLimit(o.maxBytes);
    options.strict = o.strict;
    return options;
}

// "2023-11-14T22:13:21.000000123Z", the date and time of a second written once.
class TimeCache {
public:
    const std::string& Text(Timestamp t) {
        if (t.sec != sec_ || text_.empty()) {
            sec_ = t.sec;
            text_ = TimeText(t);
        }
        char frac[12];
        std::snprintf(frac, sizeof frac, "%09u", t.nsec % 1000000000u);
        text_.replace(text_.size() - 10, 9, frac);
        return text_;
    }

private:
    std::int64_t sec_ = 0;
    std::string text_;
};

// The end of a run: the reports that lost bytes, the refusals, a capture
// with nothing on the chosen port.
struct Outcome {
    std::uint64_t messages = 0, kept = 0, refused = 0, problems = 0;
};

// Says so when a capture held no TCP payload (on the chosen port).
bool NoPayload(const Feed& feed, const FeedOptions& o, std::ostream& err, const std::string& command) {
    const TcpMessages::Totals* t = feed.Capture();
    if (t == nullptr || t->payloadBytes > 0 || t->packets == 0) return false;
    std::string ports;
    for (const std::uint16_t p : t->portsWithPayload) ports += (ports.empty() ? "" : ", ") + std::to_string(p);
    err << "trdcomp " << command << ": the capture holds no TCP payload" << (o.port ? " on port " + std::to_string(o.port) : "") << " ("
        << Plural(static_cast<long long>(t->packets), "packet") << ", " << Plural(static_cast<long long>(t->tcpSegments), "TCP segment")
        << (o.port ? " on that port" : "") << ")" << "\n";
    return true;
}

}  // namespace

// ---- decode ----

namespace {

// Messages are decoded and written out in batches on worker threads (as many
// as the machine has cores), and the batches' text is written in order: the
// reading thread only cuts, copies and writes.
class DecodeRun {
public:
    DecodeRun(const DecodeOptions& o, std::ostream& out, std::ostream& err)
        : o_(o), out_(out), err_(err), filter_(ParseFilter(o.ids, o.dir)), options_(RestoreOptionsOf(o)) {
        // As many workers as cores (one core: none, the reading thread formats too).
        const unsigned cores = std::min(8u, std::thread::hardware_concurrency());
        const unsigned n = o.threads >= 0 ? static_cast<unsigned>(o.threads) : cores > 1 ? cores : 0;
        for (unsigned i = 0; i < n; ++i) workers_.emplace_back([this] { Work(); });
    }
    ~DecodeRun() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        for (std::thread& t : workers_) t.join();
    }

    int Run() {
        // Before the input waits, everything read so far is written.
        Feed feed(o_, [this] { WriteAll(); });
        Progress progress(o_.progress, "decode");
        Found f;
        while (feed.Next(f)) {
            if (f.cut.isReport) Reported(f);
            else Message(f);
            if (batch_ && (batch_->entries.size() >= kBatch || batch_->bytes.size() >= kBatchBytes)) Submit();
            progress.Show(outcome_.messages, feed.BytesRead());
        }
        WriteAll();
        const bool empty = NoPayload(feed, o_, err_, "decode");
        if (!o_.jsonl) Summary();
        return outcome_.problems || outcome_.refused || empty ? 1 : 0;
    }

private:
    struct Count {
        std::uint64_t messages = 0, refused = 0;
    };
    // A message of the feed (its bytes in the batch's), or a report's line.
    struct Entry {
        bool report = false;
        std::string line;  // a report: its line; a message: where it was found ("name, ", and the time after it)
        std::string time;
        std::uint64_t number = 0, offset = 0;
        std::size_t at = 0, size = 0;
        Kind kind;
    };
    struct Batch {
        std::vector<Entry> entries;
        std::vector<char> bytes;
        TextBuffer out;
        std::string err;
        std::map<Kind, std::uint64_t> refused;
        std::string failure;  // what went wrong on the worker (an allocation)
        bool done = false;
    };
    static constexpr std::size_t kBatch = 256;                       // messages a batch
    static constexpr std::size_t kBatchBytes = std::size_t{1} << 20;  // or bytes
    static constexpr std::size_t kInFlight = 16;                       // batches in the workers' hands at most

    // The batch being filled: a written one again (its buffers kept), or a new one.
    Batch& Current() {
        if (batch_) return *batch_;
        if (spare_.empty()) {
            batch_ = std::make_unique<Batch>();
        } else {
            batch_ = std::move(spare_.back());
            spare_.pop_back();
            batch_->entries.clear();
            batch_->bytes.clear();
            batch_->out.Clear();
            batch_->err.clear();
            batch_->refused.clear();
            batch_->done = false;
        }
        return *batch_;
    }

    void Reported(const Found& f) {
        const Report& r = f.cut.report;
        if (r.kind != ReportKind::skipped || r.bytes > 0) ++outcome_.problems;
        Entry e;
        e.report = true;
        e.line = std::string(ReportKindName(r.kind)) + ": " + Where(f) + r.text + "\n";
        // What is wrong with the input itself goes to standard error (and,
        // in the table, where it happened too).
        if (r.kind == ReportKind::link_type || r.kind == ReportKind::unreadable || r.kind == ReportKind::cut) {
            WriteAll();
            err_ << "trdcomp decode: " << e.line << std::flush;
            if (o_.jsonl || r.kind != ReportKind::cut) return;
        }
        Current().entries.push_back(std::move(e));
    }

    void Message(const Found& f) {
        const std::uint64_t number = ++outcome_.messages;
        const char* p = f.cut.data;
        const std::size_t n = f.cut.size;
        if (!filter_.Keeps(p, n)) return;
        ++outcome_.kept;
        Batch& b = Current();
        Entry e;
        e.number = number;
        e.offset = f.cut.offset;
        e.kind = KindOf(p, n);
        ++perKind_[e.kind].messages;
        if (f.flow != nullptr && f.flow->connection != 0) {
            e.line = f.flow->name;
            e.time = times_.Text(f.time);
        }
        e.at = b.bytes.size();
        e.size = n;
        b.bytes.insert(b.bytes.end(), p, p + n);
        b.entries.push_back(std::move(e));
    }

    void Submit() {
        if (!batch_ || batch_->entries.empty()) return;
        if (workers_.empty()) {
            Format(*batch_);
            batch_->done = true;
            inFlight_.push_back(std::move(batch_));
            WriteDone(false);
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(batch_.get());
            inFlight_.push_back(std::move(batch_));
        }
        wake_.notify_one();
        WriteDone(inFlight_.size() > kInFlight);
    }

    // Writes the batches done, in order; with `wait`, at least the first.
    void WriteDone(bool wait) {
        while (!inFlight_.empty()) {
            std::unique_ptr<Batch> b;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                if (!inFlight_.front()->done) {
                    if (!wait) return;
                    done_.wait(lock, [&] { return inFlight_.front()->done; });
                }
                b = std::move(inFlight_.front());
                inFlight_.pop_front();
            }
            wait = false;
            if (!b->failure.empty()) throw std::runtime_error(b->failure);
            for (const auto& [kind, n] : b->refused) {
                perKind_[kind].refused += n;
                outcome_.refused += n;
            }
            out_.write(b->out.View().data(), static_cast<std::streamsize>(b->out.Size()));
            if (!b->err.empty()) {
                out_.flush();
                err_ << b->err << std::flush;
            }
            spare_.push_back(std::move(b));
        }
    }

    // Everything read so far, written out.
    void WriteAll() {
        Submit();
        while (!inFlight_.empty()) WriteDone(true);
        out_.flush();
    }

    void Work() {
        for (;;) {
            Batch* b;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
                if (queue_.empty()) return;
                b = queue_.front();
                queue_.pop_front();
            }
            try {
                Format(*b);
            } catch (const std::exception& e) {
                b->failure = e.what();
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                b->done = true;
            }
            done_.notify_all();
        }
    }

    void Format(Batch& b) {
        for (const Entry& e : b.entries) {
            if (e.report) {
                if (o_.jsonl) b.err += "trdcomp decode: " + e.line;
                else b.out.Append(e.line + "\n");
                continue;
            }
            std::optional<Decoded> m;
            std::string why;
            try {
                m = Decode(std::vector<char>(b.bytes.begin() + static_cast<std::ptrdiff_t>(e.at),
                                             b.bytes.begin() + static_cast<std::ptrdiff_t>(e.at + e.size)),
                           options_);
            } catch (const std::exception& x) {
                why = x.what();
                ++b.refused[e.kind];
            }
            if (o_.jsonl) {
                JsonLine(b.out, e, m ? &*m : nullptr, why);
                continue;
            }
            b.out.Append("== message " + std::to_string(e.number) + ": " + (e.line.empty() ? "" : e.line + ", ") + "offset " +
                         std::to_string(e.offset) + ", " + Plural(static_cast<long long>(e.size), "byte") + (e.time.empty() ? "" : ", " + e.time) +
                         "\n");
            if (m) AppendText(*m, b.out, o_.sent);
            else b.out.Append("refused: " + why + "\n");
            b.out.Append('\n');
        }
    }

    // The message as one line of JSON: where it was found, then the message
    // as --json describes it, or the refusal.
    void JsonLine(TextBuffer& out, const Entry& e, const Decoded* m, const std::string& why) const {
        {
            JsonTextSink sink(out);
            sink.BeginObject();
            sink.Key("message");
            sink.Unsigned(e.number);
            if (!e.line.empty()) {
                sink.Key("time");
                sink.String(e.time);
                sink.Key("connection");
                sink.String(e.line);
            }
            sink.Key("offset");
            sink.Unsigned(e.offset);
            if (m) {
                sink.Key("id");
                sink.Integer(e.kind.id);
                DescribeMembers(*m, sink);
            } else {
                sink.Key("bytes");
                sink.Unsigned(e.size);
                if (e.kind.direction != head::kNoMessage) {
                    sink.Key("direction");
                    sink.String(e.kind.direction == head::kRequest ? "request" : "answer");
                    sink.Key("id");
                    sink.Integer(e.kind.id);
                    sink.Key("coding");
                    sink.String(CodingName(e.kind.coding));
                }
                sink.Key("refused");
                sink.String(why);
            }
            sink.EndObject();
        }
        out.Append('\n');
    }

    void Summary() {
        std::string text = Plural(static_cast<long long>(outcome_.messages), "message");
        if (outcome_.kept != outcome_.messages) text += ", " + std::to_string(outcome_.kept) + " of them kept by --id/--dir";
        if (outcome_.refused) text += " (" + std::to_string(outcome_.refused) + " refused)";
        text += "\n";
        if (!perKind_.empty()) {
            std::vector<std::vector<std::string>> rows = {{"direction", "id", "coding", "messages", "refused"}};
            for (const auto& [k, c] : perKind_) {
                std::vector<std::string> row = KindCells(k);
                row.push_back(std::to_string(c.messages));
                row.push_back(std::to_string(c.refused));
                rows.push_back(row);
            }
            text += Table(rows, "  ", 3);
        }
        out_ << text << std::flush;
    }

    const DecodeOptions& o_;
    std::ostream& out_;
    std::ostream& err_;
    const Filter filter_;
    const trdcomp::RestoreOptions options_;
    Outcome outcome_;
    std::map<Kind, Count> perKind_;
    TimeCache times_;
    std::unique_ptr<Batch> batch_;                 // being filled
    std::vector<std::unique_ptr<Batch>> spare_;    // written, to be filled again
    std::deque<std::unique_ptr<Batch>> inFlight_;  // with the workers, in the order they are written
    std::deque<Batch*> queue_;                     // not taken by a worker yet
    std::mutex mutex_;
    std::condition_variable wake_, done_;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
};

}  // namespace

int RunDecodeFeed(const DecodeOptions& o, std::ostream& out, std::ostream& err) { return DecodeRun(o, out, err).Run(); }

// ---- stats ----

namespace {

class StatsRun {
public:
    StatsRun(const FeedOptions& o, std::ostream& out, std::ostream& err)
        : o_(o), out_(out), err_(err), filter_(ParseFilter(o.ids, o.dir)), options_(RestoreOptionsOf(o)) {}

    int Run() {
        Feed feed(o_, nullptr);
        Progress progress(o_.progress, "stats");
        Found f;
        while (feed.Next(f)) {
            if (f.cut.isReport) {
                const Report& r = f.cut.report;
                ++reports_[r.kind].count;
                reports_[r.kind].bytes += r.bytes;
                if (r.kind != ReportKind::skipped || r.bytes > 0) ++outcome_.problems;
                if (r.kind == ReportKind::unreadable || r.kind == ReportKind::link_type || r.kind == ReportKind::cut)
                    err_ << "trdcomp stats: " << Where(f) << r.text << "\n";
            } else {
                Message(f);
            }
            if ((outcome_.messages & 1023) == 0) progress.Show(outcome_.messages, feed.BytesRead());
        }
        const bool empty = NoPayload(feed, o_, err_, "stats");
        Print(feed);
        return outcome_.problems || outcome_.refused || empty ? 1 : 0;
    }

private:
    struct Count {
        std::uint64_t messages = 0, records = 0, coded = 0, restored = 0, refused = 0;
    };
    struct Tally {
        std::uint64_t count = 0, bytes = 0;
    };

    void Message(const Found& f) {
        ++outcome_.messages;
        const char* p = f.cut.data;
        const std::size_t n = f.cut.size;
        if (!filter_.Keeps(p, n)) return;
        ++outcome_.kept;
        if (f.flow != nullptr && f.flow->connection != 0) {
            if (!timed_) first_ = f.time;
            timed_ = true;
            last_ = f.time;
        }
        const Kind kind = KindOf(p, n);
        Count& c = CountOf(kind);
        ++c.messages;
        c.coded += n;
        if (kind.direction == head::kNoMessage) {
            ++c.refused;
            ++outcome_.refused;
            ++refusals_["head word 0 is neither 76 (a request) nor 96 (an answer)"];
            return;
        }
        const trdcomp::span<const char> wire(p, n);
        const bool coded = head::Coded(head::Load(p, head::kFlagsAt));
        // Without --strict, every check of a restore comes before it decodes
        // a record: a restore into no room at all makes them and says the
        // size. The coded records are counted by the walk of their framing.
        // Raw records and --strict: the whole restore.
        const std::int32_t flags = head::Load(p, head::kFlagsAt);
        const bool several = kind.direction == head::kAnswer && head::SeveralArrays(flags);
        const bool whole = options_.strict || (!coded && several && head::FastVersion(flags) != 0);
        trdcomp::RestoredView r = trdcomp::RestoreInto(trdcomp::span<char>(), wire, options_);
        const std::size_t needed = r ? r.Size() : r.Needed();
        if (!r && r.Error() == trdcomp::Errc::buffer_too_small) {
            if (!whole) {
                c.restored += needed;
                c.records += coded ? trdcomp::CodedRecords(p, n, nullptr, 0) : RawRecords(p, n, kind.direction == head::kRequest, several);
                return;
            }
            if (block_.size() < needed) block_.resize(needed);
            r = trdcomp::RestoreInto(trdcomp::span<char>(block_.data(), block_.size()), wire, options_);
        }
        if (!r) {
            ++c.refused;
            ++outcome_.refused;
            ++refusals_[r.Error() == trdcomp::Errc::limit_exceeded ? "restores to more than the limit of " + ByteLimitText(options_.maxBytes)
                                                                    : std::string(trdcomp::Message(r.Why()))];
            return;
        }
        c.restored += needed;
        for (int j = 0, sections = r.Sections(); j < sections; ++j) {
            const std::int32_t count = r.GetSection(j).count;
            if (count > 0) c.records += static_cast<std::uint64_t>(count);
        }
    }

    // The records a raw message the restore accepted holds, as its head or
    // section table states them (the arrays a restore shows: at most five).
    static std::uint64_t RawRecords(const char* p, std::size_t n, bool request, bool several) {
        const head::Array first = request ? head::RequestArray(p) : head::AnswerArray(p);
        if (!several) return first.count > 0 ? static_cast<std::uint64_t>(first.count) : 0;
        head::SectionTable table{};
        if (head::CheckSectionTable(p + head::kSectionTableAt, static_cast<long long>(n) - head::kSectionTableAt, head::kMaxSectionEntries,
                                    &table, nullptr, nullptr) != head::kTableOk)
            return 0;
        std::uint64_t records = 0;
        for (int j = 0; j < table.entries; ++j)
            if (table.entry[j].count > 0) records += static_cast<std::uint64_t>(table.entry[j].count);
        return records;
    }

    void Print(const Feed& feed) {
        Count all;
        for (const auto& [k, c] : perKind_) {
            all.messages += c.messages, all.records += c.records, all.coded += c.coded, all.restored += c.restored;
            all.refused += c.refused;
        }
        auto ratio = [](std::uint64_t a, std::uint64_t b) {
            char text[32];
            std::snprintf(text, sizeof text, "%.2f", b ? static_cast<double>(a) / static_cast<double>(b) : 0.0);
            return b ? std::string(text) : std::string("-");
        };
        std::ostringstream s;
        s << Plural(static_cast<long long>(outcome_.messages), "message");
        if (outcome_.kept != outcome_.messages) s << ", " << outcome_.kept << " of them kept by --id/--dir";
        s << ": " << Plural(static_cast<long long>(all.coded), "byte") << " coded, " << Plural(static_cast<long long>(all.restored), "byte")
          << " restored (coded/restored " << ratio(all.coded, all.restored) << "), " << Plural(static_cast<long long>(all.records), "record");
        if (all.refused) s << ", " << all.refused << " refused";
        s << "\n";
        if (!perKind_.empty()) {
            std::vector<std::vector<std::string>> rows = {
                {"direction", "id", "coding", "messages", "records", "coded", "restored", "coded/restored", "refused"}};
            for (const auto& [k, c] : perKind_) {
                std::vector<std::string> row = KindCells(k);
                for (const std::uint64_t v : {c.messages, c.records, c.coded, c.restored}) row.push_back(std::to_string(v));
                row.push_back(ratio(c.coded, c.restored));
                row.push_back(std::to_string(c.refused));
                rows.push_back(row);
            }
            s << "\n" << Table(rows, "  ", 3);
        }
        if (!refusals_.empty()) {
            std::vector<std::pair<std::uint64_t, std::string>> by;
            for (const auto& [why, n] : refusals_) by.emplace_back(n, why);
            std::sort(by.begin(), by.end(), [](const auto& x, const auto& y) { return x.first > y.first || (x.first == y.first && x.second < y.second); });
            std::vector<std::vector<std::string>> rows = {{"reason", "refused"}};
            for (const auto& [n, why] : by) rows.push_back({why, std::to_string(n)});
            s << "\nrefusals by reason\n" << Table(rows, "  ", 1);
        }
        if (const TcpMessages::Totals* t = feed.Capture()) {
            s << "\ncapture: " << Plural(static_cast<long long>(t->packets), "packet") << ", "
              << Plural(static_cast<long long>(t->connections), "TCP connection") << ", "
              << Plural(static_cast<long long>(t->payloadBytes), "byte") << " of TCP payload\n";
            s << "gaps: " << t->gaps << " (" << Plural(static_cast<long long>(t->missingBytes), "byte") << " missing), conflicting retransmissions: "
              << t->conflicts << "\n";
            if (timed_) {
                const double seconds = Seconds(last_) - Seconds(first_);
                s << "capture time: " << TimeText(first_) << " to " << TimeText(last_) << " (" << std::fixed << std::setprecision(3) << seconds
                  << " s): ";
                if (seconds > 0) s << std::setprecision(0) << static_cast<double>(outcome_.kept) / seconds << " messages a second\n";
                else s << "all in one instant\n";
            }
        }
        if (!reports_.empty()) {
            s << "\nreports\n";
            std::vector<std::vector<std::string>> rows = {{"kind", "count", "bytes"}};
            for (const auto& [kind, t] : reports_) rows.push_back({ReportKindName(kind), std::to_string(t.count), std::to_string(t.bytes)});
            s << Table(rows, "  ", 1);
        }
        out_ << s.str() << std::flush;
    }

    // The counts of a kind of message (the last few looked up kept at hand:
    // a feed repeats its kinds).
    Count& CountOf(const Kind& k) {
        for (auto& [kind, count] : recent_)
            if (count != nullptr && !(kind < k) && !(k < kind)) return *count;
        Count& c = perKind_[k];
        recent_[next_] = {k, &c};
        next_ = (next_ + 1) % recent_.size();
        return c;
    }

    const FeedOptions& o_;
    std::ostream& out_;
    std::ostream& err_;
    const Filter filter_;
    const trdcomp::RestoreOptions options_;
    std::vector<char> block_;  // what each message is restored into
    std::array<std::pair<Kind, Count*>, 8> recent_{};
    std::size_t next_ = 0;
    Outcome outcome_;
    std::map<Kind, Count> perKind_;
    std::map<std::string, std::uint64_t> refusals_;
    std::map<ReportKind, Tally> reports_;
    bool timed_ = false;
    Timestamp first_, last_;
};

}  // namespace

int RunStats(const FeedOptions& o, std::ostream& out, std::ostream& err) { return StatsRun(o, out, err).Run(); }

}  // namespace tool
