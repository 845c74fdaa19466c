// The subcommands of the trdcomp tool. Each returns the process exit code
// and throws std::runtime_error with a message for the user on bad input.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

struct DemoOptions {
    int id = 0;          // 0: every id
    bool quiet = false;  // totals only
};
int RunDemo(const DemoOptions& o);

struct DecodeOptions {
    std::string file = "-";
    bool hex = false;
    bool json = false;
    int flag = 0;
};
int RunDecode(const DecodeOptions& o);

struct EncodeCommandOptions {
    bool request = false, answer = false;
    long long id = -1;
    std::string coding;
    int flag = -1;
    std::string in = "-", out = "-";
    bool hex = false;
};
int RunEncode(const EncodeCommandOptions& o);

int RunCatalogue(int id);  // 0: every id

// A catalogue fingerprint as printed: 16 lowercase hex digits.
std::string HashText(std::uint64_t hash);

}  // namespace tool
