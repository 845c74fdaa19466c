// The messages of a stream or capture as decode and stats go through them:
// the input opened and read as it comes, which messages count (--id,
// --dir), a progress line.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Capture.h"
#include "Commands.h"
#include "Input.h"

namespace tool {

// The messages --id and --dir keep.
struct Filter {
    std::vector<std::pair<std::int32_t, std::int32_t>> ids;  // ranges of function ids (none: all)
    int direction = 0;                                        // trdcomp::head::Direction (0: both)
    bool Keeps(const char* p, std::size_t n) const;
};
// Throws on a list that is no list of ids and ranges, and on another direction.
Filter ParseFilter(const std::string& ids, const std::string& dir);

// A message or report of the feed; `flow` and `time` for a capture's.
struct Found {
    Cut cut;
    const Flow* flow = nullptr;
    Timestamp time;
};

class Feed {
public:
    // Opens the input (throws with the reason when it cannot); onWait is
    // called before a read waits for more input.
    Feed(const FeedOptions& o, std::function<void()> onWait);
    ~Feed();
    bool Next(Found& out);
    std::uint64_t BytesRead() const;
    // The capture's counts; null for a stream.
    const TcpMessages::Totals* Capture() const;

private:
    InputFile in_;
    std::unique_ptr<StreamReader> stream_;
    std::unique_ptr<CaptureReader> capture_;
};

// "10.0.0.1:40000 -> 10.0.0.2:9000, " for a capture's message, "" for a stream's.
std::string Where(const Found& f);

// A line on standard error, rewritten twice a second, when it is a terminal.
class Progress {
public:
    Progress(bool on, const char* what);
    ~Progress();
    void Show(std::uint64_t messages, std::uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;
    bool on_;
    bool printed_ = false;
    const char* what_;
    Clock::time_point start_, shown_;
};

// Rows of cells as a table, columns as wide as their widest cell, two
// spaces apart; columns from `rightFrom` on aligned to the right.
std::string Table(const std::vector<std::vector<std::string>>& rows, const std::string& indent, std::size_t rightFrom);

// decode of a stream or capture (RunDecode hands them here).
int RunDecodeFeed(const DecodeOptions& o, std::ostream& out, std::ostream& err);

}  // namespace tool
