// Fuzz target: the tool's JSON reader, the code behind `trdcomp encode` that
// turns a JSON document into a message. Whatever the document, Encode either
// packs a message or refuses with an error of its own words (an exception of
// the JSON library escaping it means a member was read without checking its
// type). A message it packs must restore (decode), its JSON must print the
// same record by record as in one piece, and packing that JSON again must
// give a message that packs to itself once more.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "Message.h"

namespace {

[[noreturn]] void Fail(const char* what, const std::string& detail) {
    std::fprintf(stderr, "%s: %s\n", what, detail.c_str());
    std::abort();
}

// Encode, with the JSON library's own exceptions counted as findings.
bool TryEncode(const tool::Json& j, std::vector<char>& out) {
    try {
        out = tool::Encode(j, {});
        return true;
    } catch (const nlohmann::json::exception& e) {
        Fail("the JSON library's exception escaped Encode", e.what());
    } catch (const std::runtime_error&) {
        return false;  // refused, with a message for the user
    }
}

tool::Decoded MustDecode(const std::vector<char>& wire) {
    try {
        return tool::Decode(wire, 0);
    } catch (const std::exception& e) {
        Fail("a message Encode packed does not restore", e.what());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const tool::Json j = tool::Json::parse(data, data + size, nullptr, false);
    if (j.is_discarded()) return 0;
    std::vector<char> wire;
    if (!TryEncode(j, wire)) return 0;
    const tool::Decoded m = MustDecode(wire);
    const tool::Json back = tool::ToJson(m);
    std::ostringstream streamed;
    tool::WriteJson(m, streamed);
    if (streamed.str() != back.dump(2) + "\n") Fail("WriteJson differs from ToJson", streamed.str());
    std::vector<char> again, third;
    if (!TryEncode(back, again)) Fail("the JSON of a message Encode packed is refused", back.dump());
    if (!TryEncode(tool::ToJson(MustDecode(again)), third) || third != again)
        Fail("packing a decoded message twice gives different bytes", back.dump());
    return 0;
}
