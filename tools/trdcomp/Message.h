// Whole messages for the trdcomp tool and the Python module (the library
// trdcomp_message, no command line): a received message restored through the
// library and split into sections (Decode.cpp), described value by value as
// JSON or a dict and packed back from JSON (MessageJson.cpp), and printed as
// text (MessageText.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Fields.h"
#include "OptionNames.h"
#include "trdcomp/trdcomp.hpp"

namespace tool {

// What the caller chose: 0 for the 2008 coding, else the Fast version.
struct CodingChoice {
    int fastVersion = 0;
    char flag = 0;  // the 2008 coding's flag
};

// "2008", "fast" or "fast:V" (V from 1 to 15); throws on anything else.
int ParseCoding(const std::string& text);
std::string CodingName(int fastVersion);
// The head word at byte `at` (a trdcomp::head offset) of a message, 0 where
// the message ends before it.
std::int32_t HeadWord(const std::vector<char>& wire, std::size_t at);
// A head's flags word as printed: "0x11 (coded, fast:1)".
std::string FlagsText(std::int32_t flags);
// A head word as the text table and diff print it (the flags in hex).
std::string HeadValueText(const std::string& key, const Json& v);

struct Section {
    const Layout* layout = nullptr;  // null: the records travelled raw
    int count = 0;                   // as the restored message states it
    int size = 0;                    // record size the sender stated (the caller's array)
    int slot = 0;                    // bytes per record in the restored buffer
    std::vector<char> records;       // the restored records, slot bytes each
};

struct Decoded {
    bool request = false;
    int fastVersion = 0;  // from the head's flags
    char flag = 0;
    std::vector<char> wire;
    bool restoredNothing = false;  // the id's restore keeps nothing
    std::size_t restoredBytes = 0; // what the library restored (outLen)
    int arrayCount = 1;            // arrays the sender described (answers)
    std::vector<Section> sections;
    std::vector<char> trailing;    // bytes behind the last whole record (raw messages)
};

// What a JSON document may ask encode for: a record's size, and the record
// bytes of the whole message. Beyond them the JSON is refused before
// anything is allocated.
constexpr std::int64_t kMaxRecordSize = std::int64_t{1} << 20;
constexpr std::int64_t kMaxRecordBytes = std::int64_t{256} << 20;
// Record arrays an answer's JSON may announce (a 2008 section table of
// 8 bytes each; only the first five carry records).
constexpr std::int64_t kMaxArrays = 1024;

// A message the library refused, with the check that failed.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The record arrays an answer of shape s has.
int ShapeArrays(const catalogue_model::Shape& s);
// The layout of array j of an answer of shape s whose arrays hold `count`
// records, or null for an array the shape does not have.
const Layout* AnswerLayout(const catalogue_model::Shape& s, int j, int count);
// What the library said when it refused a message: its reason, and for a
// head that names an id the id and coding, so that the reader can look it up.
std::string WhyRefused(const trdcomp::RestoredView& r, const std::vector<char>& wire, int version);

// Restores `wire` through the library and splits the result into sections.
// Throws Refused naming the failed check when the library refuses,
// std::runtime_error when the bytes are no message at all or the restore
// would need more than options.maxBytes (the message says how much).
Decoded Decode(const std::vector<char>& wire, const trdcomp::RestoreOptions& options);
// The same, keeping `wire` rather than a copy of it.
Decoded Decode(std::vector<char>&& wire, const trdcomp::RestoreOptions& options);
inline Decoded Decode(const std::vector<char>& wire, char flag) { return Decode(wire, trdcomp::RestoreOptions{flag}); }

// "unlimited", "none" or 0: no limit; else bytes, with an optional K, M or G
// (KiB, MiB, GiB). Throws on anything else.
std::size_t ParseByteLimit(const std::string& text);
// "268435456 bytes (256 MiB)", "unlimited".
std::string ByteLimitText(std::size_t limit);

// Where a restored Fast field's value came from.
enum class Origin { sent, fromPrevious, fromDefault };
const char* OriginName(Origin o);

// For a message in the Fast coding: per section, per coded record, the
// origin of each coded field by its offset, read from the records' presence
// maps. Empty for the 2008 coding and raw records.
std::vector<std::vector<std::map<int, Origin>>> SentFields(const Decoded& m);

// The head as the sender wrote it, the "head" of DescribeMessage.
void DescribeHead(const Decoded& m, ValueSink& out);
Json HeadJson(const Decoded& m);
// The whole records of a section, each as DescribeRecord (raw records: the
// hex of their bytes).
void DescribeRecords(const Section& s, ValueSink& out);
// The message: direction, coding, flag, bytes, head, arrays (answers),
// sections (layout or null, count, size, records: empty without `records`),
// trailing bytes and the note of a restore that kept nothing, where they apply.
void DescribeMessage(const Decoded& m, ValueSink& out, bool records = true);
// The members of DescribeMessage's object, for an object that says more
// (where a message of a stream or capture was found).
void DescribeMembers(const Decoded& m, ValueSink& out, bool records = true);
// DescribeMessage as a JSON document.
Json ToJson(const Decoded& m);
// Prints ToJson(m).dump(2) record by record, without building the document:
// the memory it needs does not grow with the number of records.
void WriteJson(const Decoded& m, std::ostream& out);
// The message as text; `sent` adds a column with each Fast field's origin.
void PrintText(const Decoded& m, std::ostream& out, bool sent = false);
// The same, at the end of `out`.
void AppendText(const Decoded& m, TextBuffer& out, bool sent = false);

struct EncodeOptions {
    int direction = 0;   // 0: from the JSON, 1: request, 2: answer
    long long id = -1;   // -1: from the JSON's head
    int fastVersion = -1;  // -1: from the JSON's coding
    int flag = -1;         // -1: from the JSON
    bool classic = false;  // pack values the coding cannot carry as the classic members do (RecordFromJson)
    OptionNames names;     // the caller's names of these choices, in the errors that ask for one
};

// Packs the message the JSON text describes (the shape ToJson prints; a line
// of decode --jsonl as well). A section may leave out what the function id
// gives: its layout, record size and count. Throws std::runtime_error
// naming what is wrong: a key no message, head, section or record has (and
// the nearest one), a value of the wrong shape, nesting no message has, a
// count other than the records listed, a size that does not hold them, a
// layout other than the id's, a limit above (kMaxRecordSize,
// kMaxRecordBytes, kMaxArrays), a value the coding cannot carry, a message
// the library would not pack or restore (with the library's reason). The
// text is read as it stands, never built into one document: memory goes to
// the text, the records' bytes and the message.
std::vector<char> EncodeText(std::string_view text, const EncodeOptions& options);
// The same, letting the text go once it is read, before the message is packed.
std::vector<char> EncodeText(std::vector<char>&& text, const EncodeOptions& options);
// EncodeText of the document's text.
std::vector<char> Encode(const Json& message, const EncodeOptions& options);

}  // namespace tool
