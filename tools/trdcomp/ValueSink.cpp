#include "ValueSink.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace tool {

namespace {

// Two hex digits a byte value.
struct HexDigits {
    char pair[256][2];
    constexpr HexDigits() : pair() {
        const char* digits = "0123456789abcdef";
        for (int i = 0; i < 256; ++i) pair[i][0] = digits[i >> 4], pair[i][1] = digits[i & 15];
    }
};
constexpr HexDigits kHexDigits;

}  // namespace

void AppendHexAt(char* q, const char* p, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i, q += 2) std::memcpy(q, kHexDigits.pair[static_cast<unsigned char>(p[i])], 2);
}

void AppendHex(std::string& out, const char* p, std::size_t n) {
    const std::size_t at = out.size();
    out.resize(at + 2 * n);
    AppendHexAt(out.data() + at, p, n);
}

void ValueSink::HexBytes(const char* p, std::size_t n) {
    std::string text;
    AppendHex(text, p, n);
    String(text);
}

void JsonSink::Close() {
    if (open_.empty()) throw std::logic_error("a value closed that was not opened");
    Json v = std::move(open_.back());
    open_.pop_back();
    Put(std::move(v));
}

void JsonSink::Put(Json v) {
    if (open_.empty()) {
        if (each_)
            each_(std::move(v));
        else
            done_ = std::move(v);
        return;
    }
    Json& into = open_.back();
    if (into.is_array()) {
        into.push_back(std::move(v));
        return;
    }
    if (keys_.empty()) throw std::logic_error("an object member without a key");
    into[keys_.back()] = std::move(v);
    keys_.pop_back();
}

void TextBuffer::Reserve(std::size_t n) {
    const std::size_t capacity = std::max(n, 2 * capacity_ + 4096);
    std::unique_ptr<char[]> bigger(new char[capacity]);
    if (size_ > 0) std::memcpy(bigger.get(), data_.get(), size_);
    data_ = std::move(bigger);
    capacity_ = capacity;
}

void JsonTextSink::Null() {
    Separate();
    std::memcpy(Grow(4), "null", 4);
}

namespace {

// The shortest text that reads back to v, when v is a number of at most four
// decimals below 10^11 (what the codings restore, in thousandths or ten
// thousandths): the digits of v * 10^4 with the point put in and the zeros
// behind it taken off, as std::to_chars writes such a value. 0 otherwise.
std::size_t ShortDecimal(double v, char* out) {
    if (!(v > -1e11 && v < 1e11)) return 0;
    const double scaled = v * 10000.0;
    const long long units = static_cast<long long>(scaled < 0 ? scaled - 0.5 : scaled + 0.5);
    if (static_cast<double>(units) / 10000.0 != v) return 0;
    unsigned long long a = units < 0 ? 0ull - static_cast<unsigned long long>(units) : static_cast<unsigned long long>(units);
    // Below 0.001 to_chars writes an exponent; a whole number ending in five
    // zeros or more as well.
    if (a < 10 || (a % 10000 == 0 && (a / 10000) % 100000 == 0)) return 0;
    char digits[24];
    char* end = std::to_chars(digits, digits + sizeof digits, a).ptr;
    std::size_t n = static_cast<std::size_t>(end - digits);
    std::size_t frac = 4;
    while (frac > 0 && digits[n - 1] == '0') --n, --frac;
    char* o = out;
    if (units < 0) *o++ = '-';
    if (n <= frac) {  // below 1: "0.0..."
        *o++ = '0';
        *o++ = '.';
        for (std::size_t z = n; z < frac; ++z) *o++ = '0';
        for (std::size_t k = 0; k < n; ++k) *o++ = digits[k];
    } else {
        std::memcpy(o, digits, n - frac);
        o += n - frac;
        if (frac > 0) *o++ = '.';
        for (std::size_t k = n - frac; k < n; ++k) *o++ = digits[k];
    }
    return static_cast<std::size_t>(o - out);
}

}  // namespace

std::size_t ShortestDouble(double v, char* out) {
    const std::size_t n = ShortDecimal(v, out);
    if (n > 0) return n;
    return static_cast<std::size_t>(std::to_chars(out, out + 40, v).ptr - out);
}

void JsonTextSink::Double(double v) {
    Separate();
    // The shortest text that reads back to v, as a number JSON has (a value
    // that is no number never comes here: the describers send its bytes).
    char* at = Grow(40);
    std::size_t n = ShortestDouble(v, at);
    if (std::string_view(at, n).find_first_of(".en") == std::string_view::npos) {
        at[n++] = '.';
        at[n++] = '0';
    }
    Unused(40 - n);
}

void JsonTextSink::String(std::string_view v) {
    Separate();
    Quoted(v);
}

void JsonTextSink::HexBytes(const char* p, std::size_t n) {
    Separate();
    char* at = Grow(2 * n + 2);
    *at++ = '"';
    AppendHexAt(at, p, n);
    at[2 * n] = '"';
}

namespace {

// Whether any of 8 bytes needs an escape in a JSON string: below 0x20, '"' or '\\'.
bool Escapes8(std::uint64_t w) {
    constexpr std::uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
    auto zeroByte = [&](std::uint64_t x) { return (x - kOnes) & ~x & kHigh; };
    return ((w - kOnes * 0x20) & ~w & kHigh) | zeroByte(w ^ (kOnes * '"')) | zeroByte(w ^ (kOnes * '\\'));
}

}  // namespace

void JsonTextSink::Quoted(std::string_view v) {
    static const char kHex[] = "0123456789abcdef";
    // Plain text is copied as it stands, eight bytes looked at a time; an
    // escape is written where a byte needs one.
    std::size_t i = 0;
    while (i + 8 <= v.size()) {
        std::uint64_t w;
        std::memcpy(&w, v.data() + i, 8);
        if (Escapes8(w)) break;
        i += 8;
    }
    while (i < v.size()) {
        const unsigned char c = static_cast<unsigned char>(v[i]);
        if (c < 0x20 || c == '"' || c == '\\') break;
        ++i;
    }
    char* at = Grow(i + 1);
    *at++ = '"';
    if (i <= 16) {
        for (std::size_t k = 0; k < i; ++k) at[k] = v[k];  // a few bytes: no call
    } else {
        std::memcpy(at, v.data(), i);
    }
    for (; i < v.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(v[i]);
        if (c >= 0x20 && c != '"' && c != '\\') {
            Put(static_cast<char>(c));
        } else if (c == '"' || c == '\\') {
            char* e = Grow(2);
            e[0] = '\\';
            e[1] = static_cast<char>(c);
        } else {
            char* e = Grow(6);
            const char escape[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
            std::memcpy(e, escape, sizeof escape);
        }
    }
    Put('"');
}

}  // namespace tool
