// Reading an input as it comes: a file, or standard input ("-"), in chunks,
// with the system's reason when it cannot be read. Before a read would wait
// for more bytes (a pipe whose writer has not written yet, a file being
// followed), the reader is told, so that it can hand on what it has (flush
// its output): a live feed is printed as it arrives, a file at full speed.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "MessageStream.h"

namespace tool {

class InputFile {
public:
    InputFile() = default;
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Opens `path` ("-": standard input). False with the reason in `error`:
    // "cannot open X: No such file or directory", "X is a directory".
    bool Open(const std::string& path, std::string& error);
    // Reads up to n bytes: the count, 0 at the end, -1 on an error (Error()
    // says which). With Follow, the end of a file is not the end: the read
    // waits for the file to grow (until Stop).
    long Read(char* p, std::size_t n);
    // Reads the whole input, at most `limit` bytes of it: false when there
    // are more (then `bytes` holds the first limit + 1) or on an error.
    bool ReadAll(std::vector<char>& bytes, std::size_t limit);
    void Follow(bool on) { follow_ = on; }
    // Called before a read waits for more input.
    void OnWait(std::function<void()> f) { onWait_ = std::move(f); }
    // Ends a read that waits (from a signal handler: sets a flag only).
    static void Stop();
    static bool Stopped();

    // A FILE reading through Read (for libpcap); it lives as long as this
    // input, and closing it does not close the input.
    std::FILE* AsFile();
    const std::string& Name() const { return name_; }
    const std::string& Error() const { return error_; }
    bool IsPipe() const { return pipe_; }

private:
    int fd_ = -1;
    bool own_ = false;
    bool follow_ = false;
    bool pipe_ = false;
    std::string name_, error_;
    std::function<void()> onWait_;
};

// Messages of a stream read from an input as it comes: StreamCutter over
// InputFile, reading a chunk whenever no message is ready.
class StreamReader {
public:
    StreamReader(InputFile& in, const StreamCutter::Options& options);
    // The next message or report; false at the end of the input (or once
    // the stream stopped). The input's read error comes as a report.
    bool Next(Cut& out);
    std::uint64_t Bytes() const { return cutter_.End(); }

private:
    InputFile& in_;
    StreamCutter cutter_;
    bool ended_ = false;
};

}  // namespace tool
