#include "Input.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {

namespace {

std::atomic<bool> stopRequested{false};

// How long a followed file waits before it looks for more bytes.
constexpr useconds_t kFollowPause = 200000;
// Bytes a read asks for.
constexpr std::size_t kChunk = std::size_t{1} << 20;

}  // namespace

InputFile::~InputFile() {
    if (own_ && fd_ >= 0) ::close(fd_);
}

bool InputFile::Open(const std::string& path, std::string& error) {
    name_ = path == "-" ? "standard input" : path;
    if (path == "-") {
        fd_ = STDIN_FILENO;
    } else {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) {
            error = "cannot open " + path + ": " + std::strerror(errno);
            return false;
        }
        own_ = true;
    }
    struct stat st {};
    if (::fstat(fd_, &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            error = "cannot read " + path + ": it is a directory";
            return false;
        }
        pipe_ = S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode) || S_ISCHR(st.st_mode);
    }
    return true;
}

void InputFile::Stop() { stopRequested = true; }
bool InputFile::Stopped() { return stopRequested; }

long InputFile::Read(char* p, std::size_t n) {
    for (;;) {
        if (stopRequested) return 0;
        if (onWait_) {
            pollfd pfd{fd_, POLLIN, 0};
            if (::poll(&pfd, 1, 0) == 0) onWait_();
        }
        const ssize_t got = ::read(fd_, p, n);
        if (got > 0) return static_cast<long>(got);
        if (got < 0) {
            if (errno == EINTR) continue;  // a signal that Stop did not follow
            error_ = "cannot read " + name_ + ": " + std::strerror(errno);
            return -1;
        }
        if (!follow_ || pipe_) return 0;
        if (onWait_) onWait_();
        ::usleep(kFollowPause);
    }
}

bool InputFile::ReadAll(std::vector<char>& bytes, std::size_t limit) {
    bytes.clear();
    const std::size_t cap = limit == static_cast<std::size_t>(-1) ? limit : limit + 1;
    // A file's size is known: room for it at once, not twice as it grows.
    struct stat st {};
    if (::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
        bytes.reserve(std::min(cap, static_cast<std::size_t>(st.st_size) + 1));
    for (;;) {
        const std::size_t at = bytes.size();
        if (at >= cap) return false;
        const std::size_t want = std::min(kChunk, cap - at);
        bytes.resize(at + want);
        const long got = Read(bytes.data() + at, want);
        bytes.resize(at + static_cast<std::size_t>(got > 0 ? got : 0));
        if (got < 0) return false;
        if (got == 0) return true;
    }
}

std::FILE* InputFile::AsFile() {
    cookie_io_functions_t io{};
    io.read = [](void* self, char* p, std::size_t n) -> ssize_t { return static_cast<InputFile*>(self)->Read(p, n); };
    return ::fopencookie(this, "r", io);
}

StreamReader::StreamReader(InputFile& in, const StreamCutter::Options& options) : in_(in), cutter_(options) {}

bool StreamReader::Next(Cut& out) {
    for (;;) {
        if (cutter_.Next(out)) return true;
        if (ended_) return false;
        const long got = in_.Read(cutter_.Room(kChunk), kChunk);
        cutter_.Commit(got > 0 ? static_cast<std::size_t>(got) : 0);
        if (got < 0) {
            out = Cut{};
            out.isReport = true;
            out.offset = cutter_.End();
            out.report = Report{ReportKind::unreadable, cutter_.End(), 0, in_.Error()};
            cutter_.Finish();
            ended_ = true;
            return true;
        }
        if (got == 0 || cutter_.Stopped()) {
            cutter_.Finish();
            ended_ = true;
        }
    }
}

}  // namespace tool
