#include "Fields.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "trdcomp/PriceScale.hpp"

namespace tool {

namespace {

bool Printable(char c) { return c >= 0x20 && c < 0x7F; }

template <class T>
T Load(const char* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <class T>
void Store(char* p, T v) {
    std::memcpy(p, &v, sizeof v);
}

// A block without its trailing zero bytes (they come back as zeros).
std::size_t Trimmed(const char* p, int width) {
    int n = width;
    while (n > 0 && p[n - 1] == 0) --n;
    return static_cast<std::size_t>(n);
}

// The length of a text that is printable ASCII padded with zeros; -1 for
// any other bytes.
std::size_t PlainText(const char* p, int width) {
    const std::size_t w = static_cast<std::size_t>(width);
    std::size_t i = 0;
    // Eight printable bytes at a time (none below 0x20, none above 0x7e).
    constexpr std::uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
    for (; i + 8 <= w; i += 8) {
        std::uint64_t v;
        std::memcpy(&v, p + i, 8);
        if ((((v - kOnes * 0x20) & ~v) | v | (v + kOnes)) & kHigh) break;
    }
    while (i < w && Printable(p[i])) ++i;
    const std::size_t n = i;
    for (; i + 8 <= w; i += 8) {
        std::uint64_t v;
        std::memcpy(&v, p + i, 8);
        if (v != 0) return static_cast<std::size_t>(-1);
    }
    for (; i < w; ++i)
        if (p[i] != 0) return static_cast<std::size_t>(-1);
    return n;
}

// A text as the table shows it: quoted when printable ASCII padded with
// zeros, else "hex" and its bytes before the trailing zeros.
void Quoted(std::string& out, const char* p, int width) {
    const std::size_t n = PlainText(p, width);
    if (n != static_cast<std::size_t>(-1)) {
        out += '"';
        out.append(p, n);
        out += '"';
    } else {
        out += "hex ";
        AppendHex(out, p, Trimmed(p, width));
    }
}

// A field's JSON key: "f" and its offset, as in the generated record types.
std::string Key(const Field& f) {
    std::string k = "f";
    k += std::to_string(f.offset);
    return k;
}

std::string Where(const Field& f) {
    return "field f" + std::to_string(f.offset) + " (" + FieldKindName(f.kind) + ", " + Plural(f.width, "byte") + ")";
}

void HexInto(const JsonIn& v, char* p, int width, const std::string& what) {
    std::vector<char> bytes;
    if (!v.is_string() || !ParseHex(v.get<std::string>(), bytes))
        throw std::runtime_error(what + ": expected a string of hex digits");
    if (bytes.size() > static_cast<std::size_t>(width))
        throw std::runtime_error(what + ": " + std::to_string(bytes.size()) + " bytes do not fit in " + std::to_string(width));
    if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size());
}

template <class T>
T Integer(const JsonIn& v, const std::string& what) {
    if (!v.is_number_integer()) throw std::runtime_error(what + ": expected an integer");
    if (v.is_number_unsigned()) {
        const auto u = v.get<std::uint64_t>();
        if (u > static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
            throw std::runtime_error(what + ": " + std::to_string(u) + " is out of range");
        return static_cast<T>(u);
    }
    const auto s = v.get<std::int64_t>();
    if (s < std::numeric_limits<T>::min() || s > std::numeric_limits<T>::max())
        throw std::runtime_error(what + ": " + std::to_string(s) + " is out of range");
    return static_cast<T>(s);
}

// The double a sender packs so that the coding restores `restored`. Both
// codings send the value scaled (trdcomp/PriceScale.hpp: three places Fast,
// four 2008) and truncated toward zero with half a step added whatever the
// sign: a restored negative value packed as it stands would come back one
// unit nearer zero. The result lies in the middle of the interval of doubles
// that code to the restored unit.
double SenderDouble(double restored, bool fast) {
    const double scale = fast ? trdcomp::price::kScaleFast : trdcomp::price::kScale2008;
    const double units = restored * scale;
    if (!std::isfinite(units) || std::fabs(units) > 4.0e18) return restored;
    const double n = static_cast<double>(std::llround(units));
    if (fast) return (n < 0 ? n - 0.5 : n + 0.5) / scale;
    return (n < 0 ? n - 1.0 : n) / scale;
}

void AppendNumber(std::string& out, long long v) {
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, v).ptr);
}

// A block as the table shows it: the hex of its first 32 bytes before its
// trailing zeros, and how many there are when they are more.
void AbbreviatedHex(std::string& out, const char* p, int width) {
    const std::size_t n = Trimmed(p, width);
    if (n == 0) {
        out += "(zeros)";
        return;
    }
    AppendHex(out, p, std::min<std::size_t>(n, 32));
    if (n > 32) {
        out += "... (";
        AppendNumber(out, static_cast<long long>(n));
        out += " bytes before the trailing zeros)";
    }
}

// The rows of a record from rows[used] on, reusing the strings of rows
// already there.
void AddRows(const Layout& l, const char* rec, int base, const std::string& prefix, std::vector<Row>& rows, std::size_t& used) {
    for (const Field& f : l.fields) {
        const char* p = rec + f.offset;
        if (used == rows.size()) rows.emplace_back();
        Row& r = rows[used++];
        r.offset = base + f.offset;
        r.kind.assign(prefix).append(FieldKindName(f.kind));
        r.width = f.width;
        r.value.clear();
        switch (f.kind) {
            case FieldKind::Char: {
                const unsigned char c = static_cast<unsigned char>(*p);
                if (Printable(*p)) {
                    r.value += '\'';
                    r.value += *p;
                    r.value += "' (";
                    AppendNumber(r.value, c);
                    r.value += ')';
                } else {
                    AppendNumber(r.value, c);
                }
                break;
            }
            case FieldKind::Text:
            case FieldKind::Ascii: Quoted(r.value, p, f.width); break;
            case FieldKind::Bytes:
            case FieldKind::Uncoded: AbbreviatedHex(r.value, p, f.width); break;
            case FieldKind::Int32: AppendNumber(r.value, Load<std::int32_t>(p)); break;
            case FieldKind::Int64: AppendNumber(r.value, Load<std::int64_t>(p)); break;
            case FieldKind::Double: {
                char digits[40];
                r.value.append(digits, ShortestDouble(Load<double>(p), digits));
                break;
            }
            case FieldKind::Sized:
                r.width = f.width + 4;
                r.value += "length ";
                AppendNumber(r.value, Load<std::int32_t>(p + f.width));
                r.value += ", ";
                AbbreviatedHex(r.value, p, f.width);
                break;
            case FieldKind::Array: {
                const Layout& e = catalogue_model::Get().At(f.entry);
                r.value = Plural(f.entries, "entry", "entries") + " of " + e.name;
                for (int k = 0; k < f.entries; ++k)
                    AddRows(e, p + k * e.size, base + f.offset + k * e.size, prefix + "[" + std::to_string(k) + "] ", rows, used);
                break;
            }
        }
    }
}

// A double that is no number goes as the hex of its bytes.
template <class Sink>
void DescribeDouble(const char* p, Sink& out) {
    const double v = Load<double>(p);
    if (std::isfinite(v)) return out.Double(v);
    out.BeginObject();
    out.Key("hex");
    out.HexBytes(p, 8);
    out.EndObject();
}

template <class Sink>
void DescribeTextAs(const char* p, int width, Sink& out) {
    const std::size_t n = PlainText(p, width);
    if (n != static_cast<std::size_t>(-1)) return out.String(std::string_view(p, n));
    out.BeginObject();
    out.Key("hex");
    out.HexBytes(p, Trimmed(p, width));
    out.EndObject();
}

template <class Sink>
void DescribeRecordAs(const Layout& l, const char* rec, Sink& out) {
    out.BeginObject();
    for (const Field& f : l.fields) {
        const char* p = rec + f.offset;
        char key[16] = {'f'};
        out.Key(std::string_view(key, static_cast<std::size_t>(std::to_chars(key + 1, key + sizeof key, f.offset).ptr - key)));
        switch (f.kind) {
            case FieldKind::Char:
                if (Printable(*p))
                    out.String(std::string_view(p, 1));
                else
                    out.Unsigned(static_cast<unsigned char>(*p));
                break;
            case FieldKind::Text:
            case FieldKind::Ascii: DescribeTextAs(p, f.width, out); break;
            case FieldKind::Bytes:
            case FieldKind::Uncoded: out.HexBytes(p, Trimmed(p, f.width)); break;
            case FieldKind::Int32: out.Integer(Load<std::int32_t>(p)); break;
            case FieldKind::Int64: out.Integer(Load<std::int64_t>(p)); break;
            case FieldKind::Double: DescribeDouble(p, out); break;
            case FieldKind::Sized:
                out.BeginObject();
                out.Key("length");
                out.Integer(Load<std::int32_t>(p + f.width));
                out.Key("hex");
                out.HexBytes(p, Trimmed(p, f.width));
                out.EndObject();
                break;
            case FieldKind::Array: {
                const Layout& e = catalogue_model::Get().At(f.entry);
                out.BeginList();
                for (int k = 0; k < f.entries; ++k) DescribeRecordAs(e, p + k * e.size, out);
                out.EndList();
                break;
            }
        }
    }
    out.EndObject();
}

}  // namespace

std::string Hex(const char* p, std::size_t n) {
    std::string s;
    AppendHex(s, p, n);
    return s;
}

std::string HashText(std::uint64_t hash) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    return text;
}

std::string Plural(long long n, const std::string& one, const std::string& plural) {
    return std::to_string(n) + " " + (n == 1 ? one : plural.empty() ? one + "s" : plural);
}

bool ParseHex(const std::string& text, std::vector<char>& out) {
    out.clear();
    int half = -1;
    for (char c : text) {
        if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
            if (half >= 0) return false;  // a byte split by white space
            continue;
        }
        int v;
        if (c >= '0' && c <= '9') v = c - '0';
        else if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
        else return false;
        if (half < 0) {
            half = v;
        } else {
            out.push_back(static_cast<char>(half << 4 | v));
            half = -1;
        }
    }
    return half < 0;
}

void DescribeText(const char* p, int width, ValueSink& out) { DescribeTextAs(p, width, out); }

void TextFromJson(const JsonIn& v, char* p, int width, const std::string& what) {
    if (v.is_object() && v.contains("hex")) return HexInto(v.at("hex"), p, width, what);
    if (!v.is_string()) throw std::runtime_error(what + ": expected a string or {\"hex\": ...}");
    const std::string s = v.get<std::string>();
    if (s.size() > static_cast<std::size_t>(width))
        throw std::runtime_error(what + ": a text of " + std::to_string(s.size()) + " bytes does not fit in " +
                                 std::to_string(width));
    std::memcpy(p, s.data(), s.size());
}

std::vector<Row> RecordRows(const Layout& l, const char* rec) {
    std::vector<Row> rows;
    FillRecordRows(l, rec, rows);
    return rows;
}

void FillRecordRows(const Layout& l, const char* rec, std::vector<Row>& rows) {
    std::size_t used = 0;
    static const std::string kNoPrefix;
    AddRows(l, rec, 0, kNoPrefix, rows, used);
    rows.resize(used);
}

void DescribeRecord(const Layout& l, const char* rec, ValueSink& out) {
    // The JSON text's sink, known, is called directly: the same description
    // without a virtual call a value.
    if (auto* json = dynamic_cast<JsonTextSink*>(&out)) return DescribeRecordAs(l, rec, *json);
    DescribeRecordAs(l, rec, out);
}

Json RecordJson(const Layout& l, const char* rec) {
    JsonSink sink;
    DescribeRecord(l, rec, sink);
    return sink.Take();
}

void RecordFromJson(const Layout& l, const JsonIn& j, char* rec, bool fast, bool classic, const char* classicName) {
    if (!j.is_object()) throw std::runtime_error("a record of " + l.name + " must be a JSON object");
    for (const auto& [key, v] : j.items()) {
        const Field* f = nullptr;
        for (const Field& g : l.fields)
            if (key == Key(g)) f = &g;
        if (f == nullptr) throw std::runtime_error("\"" + key + "\" is no field of " + l.name);
        char* p = rec + f->offset;
        const std::string what = l.name + " " + Where(*f);
        switch (f->kind) {
            case FieldKind::Char:
                if (v.is_string()) {
                    const std::string text = v.get<std::string>();
                    if (text.size() > 1) throw std::runtime_error(what + ": a char takes one character or a number 0..255");
                    *p = text.empty() ? 0 : text[0];
                } else {
                    const auto n = Integer<std::int32_t>(v, what);
                    if (n < -128 || n > 255) throw std::runtime_error(what + ": " + std::to_string(n) + " is out of range");
                    *p = static_cast<char>(n);
                }
                break;
            case FieldKind::Text: TextFromJson(v, p, f->width, what); break;
            case FieldKind::Ascii:
                TextFromJson(v, p, f->width, what);
                if (fast && !classic)
                    for (int i = 0; i < f->width && p[i] != 0; ++i)
                        if (static_cast<unsigned char>(p[i]) >= 0x80) {
                            char byte[8];
                            std::snprintf(byte, sizeof byte, "0x%02x", static_cast<unsigned char>(p[i]));
                            throw std::runtime_error(what + ": byte " + std::to_string(i) + " is " + byte +
                                                     ", which the Fast coding cannot carry in an ascii field (its bytes end at "
                                                     "the first of 0x80 or above, garbling the fields behind it); " +
                                                     classicName + " packs it as the classic members do");
                        }
                break;
            case FieldKind::Bytes:
            case FieldKind::Uncoded: HexInto(v, p, f->width, what); break;
            case FieldKind::Int32: Store(p, Integer<std::int32_t>(v, what)); break;
            case FieldKind::Int64: Store(p, Integer<std::int64_t>(v, what)); break;
            case FieldKind::Double:
                if (v.is_object() && v.contains("hex")) {
                    HexInto(v.at("hex"), p, 8, what);
                } else {
                    if (!v.is_number()) throw std::runtime_error(what + ": expected a number or {\"hex\": ...}");
                    Store(p, SenderDouble(v.get<double>(), fast));
                }
                break;
            case FieldKind::Sized:
                if (!v.is_object() || !v.contains("length"))
                    throw std::runtime_error(what + ": expected {\"length\": N, \"hex\": ...}");
                Store(p + f->width, Integer<std::int32_t>(v.at("length"), what + " length"));
                if (v.contains("hex")) HexInto(v.at("hex"), p, f->width, what);
                break;
            case FieldKind::Array: {
                const Layout& e = catalogue_model::Get().At(f->entry);
                if (!v.is_array() || v.size() > static_cast<std::size_t>(f->entries))
                    throw std::runtime_error(what + ": expected a list of at most " + std::to_string(f->entries) + " entries");
                for (std::size_t k = 0; k < v.size(); ++k)
                    RecordFromJson(e, v[k], p + k * static_cast<std::size_t>(e.size), fast, classic, classicName);
                break;
            }
        }
    }
}

}  // namespace tool
