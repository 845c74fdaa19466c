// A message packed from the JSON `trdcomp decode --json` prints (the tool's
// encode, the Python module's encode). The JSON text is read twice, as
// events, never as one document: the first reading takes everything but the
// records (checking every key as it comes, against the keys a message, a
// head or a section has), the second writes each record into the bytes of
// its array as soon as the record's JSON is complete. So the memory a
// document costs is that of its text, its records' bytes and the message;
// unknown keys, values of the wrong shape and nesting no message has are
// refused where they stand, before they cost anything.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Message.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace {

namespace head = trdcomp::head;
using catalogue_model::Get;
using catalogue_model::Shape;

// Nesting no message's JSON comes near (its deepest: a record's counted
// array's entry's {"hex"} value, eight levels down).
constexpr std::size_t kMaxDepth = 64;

const std::vector<std::string> kMessageKeys = {"direction", "coding", "flag",    "bytes",   "head",       "arrays", "sections", "trailing",
                                               "restored",  "message", "time",   "connection", "offset", "id",     "refused"};
const std::vector<std::string> kHeadKeys = {"nHeadLen", "nFuncId", "nFlags", "nUser", "nRecCount", "nRecSize", "cReserved", "szShort", "szLong"};
const std::vector<std::string> kSectionKeys = {"layout", "count", "size", "records"};
const std::vector<std::string> kHexKeys = {"hex"};
const std::vector<std::string> kSizedKeys = {"length", "hex"};

// Edit distance, over the first 64 characters of each (a key is named by its start).
std::size_t Distance(std::string_view a, std::string_view b) {
    a = a.substr(0, 64), b = b.substr(0, 64);
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = up;
        }
    }
    return row[b.size()];
}

// A key as an error shows it: its first 64 characters, quoted.
std::string Shown(std::string_view key) {
    std::string s = Json(std::string(key.substr(0, 64))).dump(-1, ' ', false, Json::error_handler_t::replace);
    return key.size() > 64 ? s.substr(0, s.size() - 1) + "...\"" : s;
}

[[noreturn]] void Unknown(std::string_view key, const std::vector<std::string>& known, const std::string& what) {
    if (known.empty()) throw std::runtime_error(Shown(key) + " is no " + what);
    const std::string* nearest = &known.front();
    std::size_t best = Distance(key, *nearest);
    for (const std::string& k : known)
        if (const std::size_t d = Distance(key, k); d < best) best = d, nearest = &k;
    throw std::runtime_error(Shown(key) + " is no " + what + ": the nearest is \"" + *nearest + "\"");
}

// A field's key: "f" and its offset.
std::string FieldKey(int offset) {
    std::string key = "f";
    key += std::to_string(offset);
    return key;
}

std::vector<std::string> FieldKeys(const Layout& l) {
    std::vector<std::string> keys;
    for (const Field& f : l.fields) keys.push_back(FieldKey(f.offset));
    return keys;
}

const Field* FieldNamed(const Layout& l, std::string_view key) {
    if (key.size() < 2 || key[0] != 'f' || key.size() > 8 || key.substr(1).find_first_not_of("0123456789") != std::string_view::npos)
        return nullptr;
    const int offset = std::stoi(std::string(key.substr(1)));
    for (const Field& f : l.fields)
        if (f.offset == offset && key == FieldKey(offset)) return &f;
    return nullptr;
}

// One record array as encode packs it: its layout (null: raw records), the
// count and record size it states, and the records `size` bytes apart.
struct Array {
    const Layout* layout = nullptr;
    std::int32_t count = 0;
    std::int32_t size = 0;
    std::vector<char> bytes;
};

// The JSON's events, in one of two readings. The first (skeleton) builds
// the document without the records and counts each section's records; the
// second (records) builds each record alone and writes it into its array.
class Reader {
public:
    enum class Pass { skeleton, records };
    Reader(Pass pass, std::vector<Array>* arrays, bool fast, bool classic, const char* classicName = "")
        : pass_(pass), arrays_(arrays), fast_(fast), classic_(classic), classicName_(classicName) {}

    JsonIn& Document() { return doc_; }
    // Records listed by each section (-1: no "records").
    const std::vector<std::int64_t>& Given() const { return given_; }

    bool null() { return Put(JsonIn(nullptr)); }
    bool boolean(bool v) { return Put(JsonIn(v)); }
    bool number_integer(std::int64_t v) { return Put(JsonIn(v)); }
    bool number_unsigned(std::uint64_t v) { return Put(JsonIn(v)); }
    bool number_float(double v, const std::string&) { return Put(JsonIn(v)); }
    bool string(std::string& v) { return Put(JsonIn(std::move(v))); }
    bool binary(JsonIn::binary_t&) { return Put(JsonIn(nullptr)); }
    bool start_object(std::size_t) { return Open(true); }
    bool start_array(std::size_t) { return Open(false); }
    bool end_object() { return Close(); }
    bool end_array() { return Close(); }
    bool key(std::string& k);
    bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& e) {
        std::string what = e.what();
        const std::size_t colon = what.rfind(": ");
        throw std::runtime_error("the input is not valid JSON (at byte " + std::to_string(position) + "): " +
                                 (colon == std::string::npos ? what : what.substr(colon + 2)));
    }

private:
    enum class Ctx { top, head, user, hexValue, sections, section, records, skip, record, fieldObject, entries };
    struct Frame {
        Ctx ctx = Ctx::top;
        JsonIn* into = nullptr;           // the container being built (null: nothing is)
        const Layout* layout = nullptr;   // record: its layout
        const Field* field = nullptr;     // fieldObject, entries: the field whose value it is
        std::size_t elements = 0;         // lists: elements so far
        std::string key;                  // objects: the key whose value comes next
        const Field* keyField = nullptr;  // record: the field of that key
    };

    std::string Where() const {
        std::string w;
        const bool inSection = std::any_of(frames_.begin(), frames_.end(), [](const Frame& f) { return f.ctx == Ctx::section; });
        if (inSection) w = "section " + std::to_string(section_ + 1);
        if (record_ >= 0) w += " record " + std::to_string(record_);
        return w;
    }
    [[noreturn]] void Fail(const std::string& what) const {
        const std::string w = Where();
        throw std::runtime_error(w.empty() ? what : w + ": " + what);
    }
    // What may hold a container that opens here, or the error that it may not.
    Ctx ContainerCtx(bool object);
    bool Put(JsonIn v);
    bool Open(bool object);
    bool Close();
    void Record(const JsonIn& value);

    Pass pass_;
    std::vector<Array>* arrays_;
    bool fast_, classic_;
    const char* classicName_;  // what the caller calls classic packing
    JsonIn doc_;
    std::vector<Frame> frames_;
    std::vector<std::int64_t> given_;
    int section_ = -1;      // the section being read
    std::int64_t record_ = -1;
    JsonIn recordDoc_;      // the record being read (second reading)
    int sectionsSeen_ = 0, recordsSeen_ = 0;
};

bool Reader::key(std::string& k) {
    Frame& f = frames_.back();
    auto check = [&](const std::vector<std::string>& known, const std::string& what) {
        if (std::find(known.begin(), known.end(), k) != known.end()) return;
        try {
            Unknown(k, known, what);
        } catch (const std::runtime_error& e) {
            Fail(e.what());
        }
    };
    switch (f.ctx) {
        case Ctx::top:
            check(kMessageKeys, "key of a message");
            // Two lists of sections would be read as one.
            if (k == "sections" && sectionsSeen_++) Fail("the JSON names \"sections\" twice");
            break;
        case Ctx::head: check(kHeadKeys, "key of the head"); break;
        case Ctx::section:
            check(kSectionKeys, "key of a section");
            if (k == "records" && recordsSeen_++) Fail("the section names \"records\" twice");
            break;
        case Ctx::hexValue: check(kHexKeys, "key of a text's value"); break;
        case Ctx::record:
            f.keyField = FieldNamed(*f.layout, k);
            if (f.keyField == nullptr) check(FieldKeys(*f.layout), "field of " + f.layout->name);
            break;
        case Ctx::fieldObject:
            check(f.field->kind == FieldKind::Sized ? kSizedKeys : kHexKeys, "key of a value of field f" + std::to_string(f.field->offset));
            break;
        case Ctx::skip:
        case Ctx::user:
        case Ctx::sections:
        case Ctx::records:
        case Ctx::entries: break;  // lists have no keys
    }
    f.key = std::move(k);
    return true;
}

Reader::Ctx Reader::ContainerCtx(bool object) {
    if (frames_.size() >= kMaxDepth) Fail("the JSON nests deeper than " + std::to_string(kMaxDepth) + " levels, which no message does");
    const Frame& f = frames_.back();
    const std::string kind = object ? "an object" : "a list";
    switch (f.ctx) {
        case Ctx::top:
            if (f.key == "head" && object) return Ctx::head;
            if (f.key == "sections" && !object) return Ctx::sections;
            Fail("\"" + f.key + "\" must be " +
                 (f.key == "head" ? "an object" : f.key == "sections" ? "a list" : "a single value, not " + kind));
        case Ctx::head:
            if (f.key == "nUser" && !object) return Ctx::user;
            if ((f.key == "szShort" || f.key == "szLong") && object) return Ctx::hexValue;
            Fail("head \"" + f.key + "\" must be " + (f.key == "nUser" ? "a list of 14 integers" : "a single value, not " + kind));
        case Ctx::user: Fail("\"nUser\" must be a list of 14 integers");
        case Ctx::hexValue: Fail("\"hex\" must be a string of hex digits");
        case Ctx::sections:
            if (object) return Ctx::section;
            Fail("each section must be an object");
        case Ctx::section:
            if (f.key == "records" && !object) return Ctx::records;
            Fail("\"" + f.key + "\" must be " + (f.key == "records" ? "a list" : "a single value, not " + kind));
        case Ctx::records:
            if (pass_ == Pass::skeleton) return Ctx::skip;
            if (!object) Fail("a record is an object of its fields (or, raw, a string of hex digits), not a list");
            if ((*arrays_)[static_cast<std::size_t>(section_)].layout == nullptr) Fail("a raw record is a string of hex digits");
            return Ctx::record;
        case Ctx::skip: return Ctx::skip;
        case Ctx::record: {
            const Field* field = f.keyField;
            const std::string name = "field f" + std::to_string(field->offset) + " (" + FieldKindName(field->kind) + ")";
            if (!object && field->kind == FieldKind::Array) return Ctx::entries;
            if (object && field->kind != FieldKind::Array && field->kind != FieldKind::Char && field->kind != FieldKind::Int32 &&
                field->kind != FieldKind::Int64)
                return Ctx::fieldObject;
            Fail(name + (field->kind == FieldKind::Array ? " takes a list of its entries" : " takes no " + std::string(object ? "object" : "list")));
        }
        case Ctx::fieldObject: Fail("field f" + std::to_string(f.field->offset) + ": its value's members are single values");
        case Ctx::entries:
            if (object) return Ctx::record;
            Fail("field f" + std::to_string(f.field->offset) + ": each entry is an object of its fields");
    }
    Fail("unexpected JSON");
}

bool Reader::Open(bool object) {
    if (frames_.empty()) {
        if (!object) throw std::runtime_error("the input must be a JSON object (the shape `trdcomp decode --json` prints)");
        Frame top;
        top.ctx = Ctx::top;
        top.into = pass_ == Pass::skeleton ? &doc_ : nullptr;
        frames_.push_back(std::move(top));
        if (pass_ == Pass::skeleton) doc_ = JsonIn::object();
        return true;
    }
    Frame& parent = frames_.back();
    const Ctx ctx = ContainerCtx(object);
    Frame f;
    f.ctx = ctx;
    // The container is built where its parent is built, or, for a record of
    // the second reading, as a document of its own.
    JsonIn fresh = object ? JsonIn::object() : JsonIn::array();
    if (ctx == Ctx::records && pass_ == Pass::skeleton) given_[static_cast<std::size_t>(section_)] = 0;
    if (ctx == Ctx::section) {
        ++section_;
        given_.push_back(-1);
        recordsSeen_ = 0;
    }
    if (ctx == Ctx::records) record_ = -1;
    if (parent.ctx == Ctx::records) {
        ++parent.elements;
        ++record_;
        if (pass_ == Pass::skeleton) ++given_[static_cast<std::size_t>(section_)];
    }
    if (ctx == Ctx::record && parent.ctx == Ctx::records) {
        recordDoc_ = std::move(fresh);
        f.into = &recordDoc_;
        f.layout = (*arrays_)[static_cast<std::size_t>(section_)].layout;
    } else if (ctx == Ctx::records || ctx == Ctx::skip) {
        f.into = nullptr;
    } else if (parent.into != nullptr) {
        if (parent.into->is_array()) {
            if (parent.ctx == Ctx::entries && parent.elements >= static_cast<std::size_t>(parent.field->entries))
                Fail("field f" + std::to_string(parent.field->offset) + ": expected a list of at most " +
                     std::to_string(parent.field->entries) + " entries");
            ++parent.elements;
            parent.into->push_back(std::move(fresh));
            f.into = &parent.into->back();
        } else {
            f.into = &((*parent.into)[parent.key] = std::move(fresh));
        }
    }
    if (ctx == Ctx::record && parent.ctx == Ctx::entries) f.layout = &Get().At(parent.field->entry);
    if (ctx == Ctx::fieldObject || ctx == Ctx::entries) f.field = parent.keyField;
    frames_.push_back(std::move(f));
    return true;
}

bool Reader::Close() {
    const Frame f = std::move(frames_.back());
    frames_.pop_back();
    if (f.ctx == Ctx::records) record_ = -1;
    if (f.ctx == Ctx::record && !frames_.empty() && frames_.back().ctx == Ctx::records) Record(recordDoc_);
    return true;
}

bool Reader::Put(JsonIn v) {
    if (frames_.empty()) throw std::runtime_error("the input must be a JSON object (the shape `trdcomp decode --json` prints)");
    Frame& f = frames_.back();
    switch (f.ctx) {
        case Ctx::records:
            ++f.elements;
            ++record_;
            if (pass_ == Pass::skeleton) ++given_[static_cast<std::size_t>(section_)];
            else Record(v);
            return true;
        case Ctx::skip: return true;
        case Ctx::user:
            if (f.elements >= 14) Fail("\"nUser\" must be a list of 14 integers");
            break;
        case Ctx::entries:
            if (f.elements >= static_cast<std::size_t>(f.field->entries))
                Fail("field f" + std::to_string(f.field->offset) + ": expected a list of at most " + std::to_string(f.field->entries) + " entries");
            break;
        default: break;
    }
    if (f.into == nullptr) return true;
    if (f.into->is_array()) {
        ++f.elements;
        f.into->push_back(std::move(v));
    } else {
        (*f.into)[f.key] = std::move(v);
    }
    return true;
}

void Reader::Record(const JsonIn& value) {
    Array& a = (*arrays_)[static_cast<std::size_t>(section_)];
    if (record_ >= a.count) return;  // the first reading counted them: cannot happen
    char* rec = a.bytes.data() + static_cast<std::size_t>(record_) * static_cast<std::size_t>(a.size);
    if (a.layout) {
        // The layout's record, of which the record size keeps its first bytes.
        std::vector<char> full(static_cast<std::size_t>(a.layout->size), 0);
        try {
            RecordFromJson(*a.layout, value, full.data(), fast_, classic_, classicName_);
        } catch (const std::runtime_error& e) {
            Fail(e.what());
        }
        std::memcpy(rec, full.data(), std::min(full.size(), static_cast<std::size_t>(a.size)));
        return;
    }
    std::vector<char> raw;
    if (!value.is_string() || !ParseHex(value.get<std::string>(), raw)) Fail("a raw record is a string of hex digits");
    if (raw.size() > static_cast<std::size_t>(a.size))
        throw std::runtime_error(Where() + " has " + Plural(static_cast<long long>(raw.size()), "byte") + ", more than the record size (" +
                                 std::to_string(a.size) + ")");
    if (!raw.empty()) std::memcpy(rec, raw.data(), raw.size());
}

// A 32-bit word, as the heads and the section table hold them, named `name`
// in an error.
std::int32_t Int32Of(const JsonIn& v, const std::string& name) {
    if (!v.is_number_integer()) throw std::runtime_error(name + " must be an integer");
    if (v.is_number_unsigned() ? v.get<std::uint64_t>() > INT32_MAX : v.get<std::int64_t>() < INT32_MIN || v.get<std::int64_t>() > INT32_MAX)
        throw std::runtime_error(name + " is " + v.dump() + ", out of range of a 32-bit word (-2147483648 to 2147483647)");
    return static_cast<std::int32_t>(v.get<std::int64_t>());
}

// An integer member of the JSON, or `fallback` when it has none.
std::int32_t IntOf(const JsonIn& j, const char* key, std::int32_t fallback, const std::string& where = "") {
    if (!j.is_object() || !j.contains(key)) return fallback;
    return Int32Of(j.at(key), (where.empty() ? "" : where + ": ") + "\"" + key + "\"");
}

const JsonIn* Member(const JsonIn& j, const char* key) { return j.is_object() && j.contains(key) ? &j.at(key) : nullptr; }

// What the JSON says of one section (its records counted, `given`; -1 when
// it has no "records"), checked against itself and against the layout the
// function id packs (`expected`, null for raw records): a count and a size
// that match the records given, within the limits, so that nothing is
// dropped or read past the records. `count` and `size` are the defaults
// when the section names none; `total` sums the record bytes of the message
// so far. The records' bytes are allocated, zero, for the second reading.
Array ReadArray(const JsonIn& sec, std::int64_t given, const Layout* expected, const std::string& expectedWhy,
                std::optional<std::int32_t> count, std::optional<std::int32_t> size, std::int64_t& total, int fastVersion,
                const std::string& where) {
    if (!sec.is_object()) throw std::runtime_error(where + " must be an object");
    if (given < 0) given = 0;
    Array a;
    a.count = IntOf(sec, "count", count ? *count : static_cast<std::int32_t>(std::min<std::int64_t>(given, INT32_MAX)), where);
    if (given != std::max<std::int64_t>(a.count, 0))
        throw std::runtime_error(where + ": its count is " + std::to_string(a.count) + " but it lists " + Plural(given, "record") +
                                 ": the count must be the number of records listed");
    if (fastVersion != 0 && given > 0xFFFF)
        throw std::runtime_error(where + " lists " + Plural(given, "record") + ": " + trdcomp::Message(trdcomp::Reason::too_many_fast_records));
    a.layout = expected;
    if (const JsonIn* l = Member(sec, "layout"); l && !l->is_null()) {
        if (!l->is_string()) throw std::runtime_error(where + ": \"layout\" must be a layout's name or null (raw records)");
        const auto it = Get().layouts.find(l->get<std::string>());
        if (it == Get().layouts.end()) throw std::runtime_error(where + ": no layout named " + l->get<std::string>());
        if (expected && expected != &it->second)
            throw std::runtime_error(where + " holds " + it->first + " records, but " + expectedWhy + " packs " + expected->name +
                                     " records");
        a.layout = &it->second;
    } else if (l) {
        a.layout = nullptr;  // raw records, as hex
    }
    a.size = IntOf(sec, "size", size ? *size : a.layout ? a.layout->size : 0, where);
    if (a.size < 0) throw std::runtime_error(where + ": the record size is negative (" + std::to_string(a.size) + ")");
    if (given > 0 && a.size == 0)
        throw std::runtime_error(where + " lists " + Plural(given, "record") + " but no record size: say \"size\" (raw records have "
                                 "no layout to take it from)");
    // A codec reads whole records of its layout, a record size apart.
    if (expected && given > 0 && a.size < expected->size)
        throw std::runtime_error(where + ": a record size of " + std::to_string(a.size) + " is less than " + expected->name +
                                 "'s " + Plural(expected->size, "byte") + ", which the codec reads of every record");
    if (a.size > kMaxRecordSize)
        throw std::runtime_error(where + ": a record size of " + std::to_string(a.size) + " bytes is more than encode packs (at most " +
                                 ByteLimitText(kMaxRecordSize) + " a record)");
    total += given * a.size;
    if (total > kMaxRecordBytes)
        throw std::runtime_error(where + ": the records of the message come to " + std::to_string(total) +
                                 " bytes or more, more than encode packs (at most " + ByteLimitText(kMaxRecordBytes) + ")");
    a.bytes.assign(static_cast<std::size_t>(given * a.size), 0);
    return a;
}

// Encode writes only messages the library restores: a head the JSON set up
// against the restore's checks (a request's flag bit 1, the coded bit of a
// raw id, ...) is refused with the check that would fail. The checks come
// before the restore needs its buffer, so none is given (the answer is
// then "too small", with the size a restore needs).
void CheckRestores(const std::vector<char>& wire, bool request, char flag) {
    const trdcomp::span<const char> in(wire.data(), wire.size());
    trdcomp::RestoreOptions options;
    options.flag = flag;
    const trdcomp::RestoredView r = request ? trdcomp::RestoreRequestInto({}, in, options) : trdcomp::RestoreAnswerInto({}, in, options);
    if (!r && r.Error() != trdcomp::Errc::buffer_too_small) {
        const int version = head::FastVersion(HeadWord(wire, head::kFlagsAt));
        throw std::runtime_error("the message would not restore: " + WhyRefused(r, wire, version));
    }
}

// Room for a packed message of at most `bound` bytes, not cleared (only what
// the packer writes is touched), and the message once packed: its bytes and
// what the sender put behind it.
struct PackBuffer {
    explicit PackBuffer(std::uint64_t bound) : size(static_cast<std::size_t>(bound)), data(new char[size]) {}
    std::vector<char> Message(std::size_t length, const std::vector<char>& behind) {
        std::vector<char> wire;
        wire.reserve(length + behind.size());
        wire.assign(data.get(), data.get() + length);
        wire.insert(wire.end(), behind.begin(), behind.end());
        data.reset();
        return wire;
    }
    std::size_t size;
    std::unique_ptr<char[]> data;
};

// The records of every section, read from the text a second time into the
// arrays the first reading sized.
void FillRecords(std::string_view text, std::vector<Array>& arrays, bool fast, bool classic, const char* classicName) {
    Reader records(Reader::Pass::records, &arrays, fast, classic, classicName);
    JsonIn::sax_parse(text, &records);
}

}  // namespace

namespace {

// EncodeText; `owner`, when given, holds the text and lets it go once read.
std::vector<char> EncodeImpl(std::string_view text, const EncodeOptions& o, std::vector<char>* owner) {
    Reader skeleton(Reader::Pass::skeleton, nullptr, false, false);
    JsonIn::sax_parse(text, &skeleton);
    const JsonIn& msg = skeleton.Document();
    const std::vector<std::int64_t>& given = skeleton.Given();
    if (!msg.is_object()) throw std::runtime_error("the input must be a JSON object (the shape `trdcomp decode --json` prints)");
    if (const JsonIn* refused = Member(msg, "refused"))
        throw std::runtime_error("the message was refused when it was decoded (" + (refused->is_string() ? refused->get<std::string>() : refused->dump()) +
                                 "): there are no records to pack");
    const JsonIn head = msg.contains("head") ? msg.at("head") : JsonIn::object();
    if (!head.is_object()) throw std::runtime_error("\"head\" must be an object");
    bool request;
    if (o.direction != 0) {
        request = o.direction == 1;
    } else if (msg.contains("direction") && msg.at("direction").is_string()) {
        const std::string d = msg.at("direction").get<std::string>();
        if (d != "request" && d != "answer") throw std::runtime_error("\"direction\" must be \"request\" or \"answer\"");
        request = d == "request";
    } else {
        throw std::runtime_error(std::string("say ") + o.names.direction + " (the JSON has no \"direction\")");
    }
    long long id = o.id;
    if (id < 0) {
        if (!head.contains("nFuncId")) throw std::runtime_error(std::string("say ") + o.names.id + " (the JSON's head has no nFuncId)");
        id = IntOf(head, "nFuncId", 0, "head");
    }
    if (id > INT32_MAX) throw std::runtime_error(std::string(o.names.id) + " " + std::to_string(id) + " does not fit a 32-bit id");
    int version = o.fastVersion;
    if (version < 0) {
        if (!msg.contains("coding") || !msg.at("coding").is_string()) throw std::runtime_error(std::string("say ") + o.names.coding + " (the JSON has no \"coding\")");
        version = ParseCoding(msg.at("coding").get<std::string>());
    }
    const int flagValue = o.flag >= 0 ? o.flag : IntOf(msg, "flag", 0);
    if (flagValue < -128 || flagValue > 255) throw std::runtime_error("\"flag\" is " + std::to_string(flagValue) + ", not a byte");
    const char flag = static_cast<char>(flagValue);
    const JsonIn sections = msg.contains("sections") ? msg.at("sections") : JsonIn::array();
    if (!sections.is_array()) throw std::runtime_error("\"sections\" must be a list");
    const catalogue_model::Cell cell = Get().PackCell(request, static_cast<int>(id), version != 0);
    const bool raw = cell.kind == catalogue_model::CellKind::raw;
    std::vector<char> trailing;
    if (msg.contains("trailing") && (!msg.at("trailing").is_string() || !ParseHex(msg.at("trailing").get<std::string>(), trailing)))
        throw std::runtime_error("\"trailing\" must be a string of hex digits");
    const bool codec = cell.IsCodec();
    // The ids whose pack writes the head alone drop any records.
    const bool headAlone = !codec && !raw;
    // The records' layout is the one the receiver restores them with (ids
    // whose layouts code alike share one encoder, not one layout).
    const catalogue_model::Cell restoreCell = Get().RestoreCell(request, static_cast<int>(id), version != 0);
    const int layoutOf = restoreCell.IsCodec() ? restoreCell.codec : codec ? cell.codec : 0;
    const std::string packs = "function id " + std::to_string(id) + " in the " + CodingName(version) + " coding";
    const trdcomp::Coding coding = (version ? trdcomp::Coding::Fast(version) : trdcomp::Coding::C2008(flag)).Strict(!o.classic);
    std::int64_t total = 0;
    auto givenOf = [&](std::size_t j) { return j < given.size() ? given[j] : -1; };

    if (request) {
        if (sections.size() > 1) throw std::runtime_error("a request has one record array; the JSON has " + std::to_string(sections.size()));
        tagREQ_HEAD h{};
        h.nHeadLen = trdcomp::head::kRequestLength;
        h.nFuncId = static_cast<int>(id);
        h.nFlags = IntOf(head, "nFlags", 0, "head");
        if (codec) h.nFlags &= ~TRDCOMP_FLAG_CODED;  // the codec sets it
        if (head.contains("nUser")) {
            const JsonIn& u = head.at("nUser");
            if (!u.is_array() || u.size() != 14) throw std::runtime_error("\"nUser\" must be a list of 14 integers");
            for (int i = 0; i < 14; ++i) h.nUser[i] = Int32Of(u[static_cast<std::size_t>(i)], "head nUser[" + std::to_string(i) + "]");
        }
        // The head's count and size are the section's unless it says otherwise.
        std::optional<std::int32_t> headCount, headSize;
        if (head.contains("nRecCount")) headCount = IntOf(head, "nRecCount", 0, "head");
        if (head.contains("nRecSize")) headSize = IntOf(head, "nRecSize", 0, "head");
        const Layout* expected = codec ? &Get().At(Get().requestLayoutOf.at(layoutOf)) : nullptr;
        std::vector<Array> arrays(1);
        Array& a = arrays[0];
        if (!sections.empty()) {
            a = ReadArray(sections[0], givenOf(0), expected, packs, headCount, headSize, total, version, "section 1");
            if (headAlone && !a.bytes.empty())
                throw std::runtime_error("section 1 lists records, but " + packs + " sends the head alone");
        } else {
            a.count = headCount.value_or(0);
            a.size = headSize.value_or(0);
            if (a.count > 0 && !headAlone)
                throw std::runtime_error("the head's nRecCount is " + std::to_string(a.count) + " but the JSON lists no records");
        }
        if ((headCount && a.count != *headCount) || (headSize && a.size != *headSize))
            throw std::runtime_error("the head's nRecCount and nRecSize (" + std::to_string(headCount.value_or(a.count)) + ", " +
                                     std::to_string(headSize.value_or(a.size)) + ") differ from section 1's count and size (" +
                                     std::to_string(a.count) + ", " + std::to_string(a.size) + ")");
        FillRecords(text, arrays, version != 0, o.classic, o.names.classic);
        if (owner) std::vector<char>().swap(*owner);
        h.nRecCount = a.count;
        h.nRecSize = a.size;
        // A raw request's bytes behind its records travel with them; a coded
        // message's follow it.
        if (raw) a.bytes.insert(a.bytes.end(), trailing.begin(), trailing.end());
        const std::uint64_t bound = trdcomp::RequestSizeBound(h, a.bytes.size(), coding);
        if (bound + (raw ? 0 : trailing.size()) > static_cast<std::uint64_t>(INT_MAX)) throw std::runtime_error("the message would exceed 2 GiB");
        PackBuffer buffer(bound);
        const trdcomp::PackResult res = trdcomp::PackRequest(trdcomp::span<char>(buffer.data.get(), buffer.size), h,
                                                             trdcomp::span<const char>(a.bytes.data(), a.bytes.size()), coding);
        if (!res) throw std::runtime_error(std::string("the library refused to pack the request: ") + trdcomp::Message(res.reason));
        arrays.clear();
        std::vector<char> out = buffer.Message(res.size, raw ? std::vector<char>() : trailing);
        CheckRestores(out, true, flag);
        return out;
    }

    if (sections.size() > 5) throw std::runtime_error("an answer has at most 5 record arrays; the JSON has " + std::to_string(sections.size()));
    tagANS_Proc proc{};
    proc.nFuncId = static_cast<int>(id);
    if (head.contains("szShort")) TextFromJson(head.at("szShort"), proc.szShort, 4, "head szShort");
    if (head.contains("szLong")) TextFromJson(head.at("szLong"), proc.szLong, 64, "head szLong");
    const std::int64_t arrayCount = IntOf(msg, "arrays", static_cast<std::int32_t>(std::max<std::size_t>(sections.size(), 1)));
    if (arrayCount < static_cast<std::int64_t>(sections.size()) || arrayCount > kMaxArrays)
        throw std::runtime_error("\"arrays\" is " + std::to_string(arrayCount) + ": it must lie between the " +
                                 Plural(static_cast<long long>(sections.size()), "section") + " given and " + std::to_string(kMaxArrays));
    proc.nArrayCount = static_cast<std::int32_t>(arrayCount);
    const Shape* shape = codec ? &Get().AnswerShape(layoutOf) : nullptr;
    if (shape && arrayCount != ShapeArrays(*shape))
        throw std::runtime_error("\"arrays\" is " + std::to_string(arrayCount) + ", but " + packs + " packs " +
                                 Plural(ShapeArrays(*shape), "record array"));
    if (raw && version != 0 && arrayCount > 1)
        throw std::runtime_error(packs + " sends its records raw, and raw answers in the Fast coding carry no section table: "
                                 "an answer of " + Plural(arrayCount, "array") + " could not be restored");
    std::vector<Array> data(5);
    for (std::size_t j = 0; j < sections.size(); ++j) {
        const JsonIn& sec = sections[j];
        const std::string where = "section " + std::to_string(j + 1);
        // A count-switched answer's layout follows the count.
        const std::int64_t listed = std::max<std::int64_t>(givenOf(j), 0);
        const std::int32_t count = IntOf(sec, "count", static_cast<std::int32_t>(std::min<std::int64_t>(listed, INT32_MAX)), where);
        const Layout* expected = shape ? AnswerLayout(*shape, static_cast<int>(j), count) : nullptr;
        if (shape && !expected) throw std::runtime_error(packs + " packs " + Plural(ShapeArrays(*shape), "record array") + ", not " + std::to_string(j + 1));
        data[j] = ReadArray(sec, givenOf(j), expected, packs, std::nullopt, std::nullopt, total, version, where);
        if (headAlone && !data[j].bytes.empty()) throw std::runtime_error(where + " lists records, but " + packs + " sends the head alone");
        proc.nRecCount[j] = data[j].count;
        proc.nRecSize[j] = data[j].size;
    }
    if (sections.empty()) {
        proc.nRecCount[0] = IntOf(head, "nRecCount", 0, "head");
        proc.nRecSize[0] = IntOf(head, "nRecSize", 0, "head");
        if (proc.nRecSize[0] < 0)
            throw std::runtime_error("head: the record size is negative (" + std::to_string(proc.nRecSize[0]) + ")");
        if (proc.nRecCount[0] > 0 && !headAlone)
            throw std::runtime_error("the head's nRecCount is " + std::to_string(proc.nRecCount[0]) + " but the JSON lists no records");
    }
    FillRecords(text, data, version != 0, o.classic, o.names.classic);
    if (owner) std::vector<char>().swap(*owner);
    const std::uint64_t bound = trdcomp::AnswerSizeBound(proc, coding);
    if (bound + trailing.size() > static_cast<std::uint64_t>(INT_MAX)) throw std::runtime_error("the message would exceed 2 GiB");
    PackBuffer buffer(bound);
    char* const out = buffer.data.get();
    std::memset(out, 0, std::min<std::size_t>(buffer.size, head::kAnswerLength));
    // PackAns2008 or-s its bits into the flags word and leaves bytes 12..19:
    // the sender's other flag bits and reserved bytes are placed first.
    const std::int32_t keep = IntOf(head, "nFlags", 0, "head") & ~(TRDCOMP_FLAG_CODED | TRDCOMP_FLAG_SECTIONS | TRDCOMP_FLAG_FAST_MASK);
    trdcomp::head::Store(out, trdcomp::head::kFlagsAt, keep);
    if (head.contains("cReserved")) {
        std::vector<char> reserved;
        if (!head.at("cReserved").is_string() || !ParseHex(head.at("cReserved").get<std::string>(), reserved) || reserved.size() != 8)
            throw std::runtime_error("head cReserved must be 8 bytes of hex");
        std::memcpy(out + trdcomp::head::kAnswerReservedAt, reserved.data(), reserved.size());
    }
    int len = 0;
    CTrdCompData::PackAns2008(out, static_cast<int>(buffer.size), len, &proc, data[0].bytes.data(), data[1].bytes.data(),
                              data[2].bytes.data(), data[3].bytes.data(), data[4].bytes.data(), flag, version << TRDCOMP_FLAG_FAST_SHIFT);
    if (len == 0) {
        // The modern packer says why (it takes the arrays that carry records).
        std::vector<trdcomp::Array> arrays;
        for (std::size_t j = 0; j < std::min<std::size_t>(static_cast<std::size_t>(arrayCount), 5); ++j)
            arrays.emplace_back(data[j].bytes.data(), data[j].count, data[j].size);
        const trdcomp::PackResult why = trdcomp::PackAnswer(trdcomp::span<char>(out, buffer.size), proc,
                                                            trdcomp::span<const trdcomp::Array>(arrays.data(), arrays.size()), coding);
        throw std::runtime_error(std::string("the library refused to pack the answer: ") +
                                 (why ? "its classic packer returned no message" : trdcomp::Message(why.reason)));
    }
    data.clear();
    std::vector<char> wire = buffer.Message(static_cast<std::size_t>(len), trailing);
    CheckRestores(wire, false, flag);
    return wire;
}

}  // namespace

std::vector<char> EncodeText(std::string_view text, const EncodeOptions& options) { return EncodeImpl(text, options, nullptr); }

std::vector<char> EncodeText(std::vector<char>&& text, const EncodeOptions& options) {
    std::vector<char> owned = std::move(text);
    return EncodeImpl(std::string_view(owned.data(), owned.size()), options, &owned);
}

std::vector<char> Encode(const Json& message, const EncodeOptions& options) { return EncodeText(message.dump(), options); }

}  // namespace tool
