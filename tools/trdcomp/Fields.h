// Field by field views of records for the trdcomp tool: as rows of a text
// table and as described values (JSON, the Python module's dicts), and back
// from JSON into record bytes. The layouts come from the catalogue (offsets,
// kinds and widths); a record without a layout is one block of bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ValueSink.h"
#include "model/CatalogueModel.h"

namespace tool {

using catalogue_model::Field;
using catalogue_model::FieldKind;
using catalogue_model::FieldKindName;
using catalogue_model::Layout;

std::string Hex(const char* p, std::size_t n);
// A catalogue fingerprint as printed: 16 lowercase hex digits.
std::string HashText(std::uint64_t hash);
// "1 record", "2 records"; `plural` for words that do not just take an s.
std::string Plural(long long n, const std::string& one, const std::string& plural = "");
// Parses hex digits (spaces and newlines between bytes allowed). False on
// anything else.
bool ParseHex(const std::string& text, std::vector<char>& out);

// One line of a record's table: its absolute offset, kind, width and value.
struct Row {
    int offset;
    std::string kind;
    int width;
    std::string value;
};

// The rows of a record; counted arrays are expanded entry by entry.
std::vector<Row> RecordRows(const Layout& l, const char* rec);
// The same into `rows`, whose strings it reuses (rows.size() rows after).
void FillRecordRows(const Layout& l, const char* rec, std::vector<Row>& rows);

// The record as an object keyed "f<offset>", in offset order: a char as a
// one-letter string when printable, else its number; texts as DescribeText;
// blocks as hex without their trailing zeros; numbers as numbers (a double
// that is no number as {"hex"}); a sized block as {"length", "hex"}; a
// counted array as a list of its entries, every entry, whatever the count.
void DescribeRecord(const Layout& l, const char* rec, ValueSink& out);
// DescribeRecord as a JSON object.
Json RecordJson(const Layout& l, const char* rec);

// Writes the fields the object names into rec (l.size bytes, zeroed by the
// caller). Throws std::runtime_error naming the field on a value that does
// not fit its kind or width, or on a key that is no field of the layout.
// Doubles are values as a restore in the coding gives them back (`fast`
// selects the Fast coding's thousandths, else the 2008 coding's ten
// thousandths): each is written as the double whose coding restores to the
// nearest such value, so that a decoded message packs to the same bytes.
// In the Fast coding an ascii field's bytes end at a byte of 0x80 or above,
// which would garble the fields behind it on restore: such a byte is
// refused, unless `classic` asks for the bytes the classic members pack (the
// refusal names the caller's option for it, `classicName`).
void RecordFromJson(const Layout& l, const JsonIn& j, char* rec, bool fast, bool classic = false, const char* classicName = "--classic");

// A text: a string when printable ASCII padded with zeros, else {"hex"}.
void DescribeText(const char* p, int width, ValueSink& out);
void TextFromJson(const JsonIn& v, char* p, int width, const std::string& what);

}  // namespace tool
