// The catalogue as plain run-time data (the tables the catalogue generator
// writes beside the library's generated code) for the tools and the tests: a generator of
// realistic records, and the model of what each coding gives back: the
// documented losses only, not a second codec.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "CatalogueTables.h"

namespace catalogue_model {

// The kinds of field, answer shape and routing cell, as the generator writes
// them; each has its one function that names a kind (FieldKindName, ...) for
// text and JSON, and the one that reads a name back (FieldKindNamed, ...).
using trdcomp::generated::CellKind;
using trdcomp::generated::CellKindName;
using trdcomp::generated::FieldKind;
using trdcomp::generated::FieldKindName;
using trdcomp::generated::ShapeKind;
using trdcomp::generated::ShapeKindName;

struct Field {
    FieldKind kind = FieldKind::Char;
    int offset = 0;
    int width = 0;
    int def = 0;            // Fast first-record default of a char
    int limit = 0;          // text: decode limit when it differs from the width (0: none)
    bool last = false;      // text: coded after every other field of the record
    std::string entry;      // array: the entry layout
    int entries = 0;        // array: entry count
    int countOffset = 0;    // array: offset of the count
};

struct Layout {
    std::string name;
    int size = 0;
    std::vector<Field> fields;  // offset order
    std::vector<int> codingOrder;  // offsets of the coded fields in the order the engines code them
};

// A routing cell: the id whose codec serves a function id in one direction
// and coding, or what happens instead.
struct Cell {
    CellKind kind = CellKind::raw;
    int codec = 0;  // CellKind::codec: the id whose codec it is
    bool IsCodec() const { return kind == CellKind::codec; }
    std::string Text() const;  // "1013", "RAW", "NO_RECORDS", "HEAD_ONLY", "NOTHING"
};

struct Route {
    int id = 0;
    Cell cell[4];  // pack 2008, pack Fast, restore 2008, restore Fast
};

struct Shape {
    ShapeKind kind = ShapeKind::Single;
    std::vector<std::string> layouts;
    // The layout of array j of an answer whose arrays hold `count` records
    // (count-switched answers: the narrow layout below two records), or ""
    // for an array the shape does not have.
    const std::string& LayoutOf(int j, int count) const;
};

struct Catalogue {
    std::map<std::string, Layout> layouts;      // requests and answers
    std::map<int, std::string> requestLayoutOf;  // function id -> layout
    std::vector<Route> requestRoutes, answerRoutes;
    std::map<int, Shape> shapes;
    std::map<int, int> aliases;

    const Layout& At(const std::string& name) const { return layouts.at(name); }
    const Route* RequestRoute(int id) const;
    const Route* AnswerRoute(int id) const;
    // The cell of `id` for packing or restoring in a coding; ids without a
    // route travel raw.
    Cell PackCell(bool request, int id, bool fast) const;
    Cell RestoreCell(bool request, int id, bool fast) const;
    // The shape of an answer id or codec (its own, or that of the id it aliases).
    const Shape& AnswerShape(int id) const;
};

const Catalogue& Get();

enum class Coding { k2008, kFast };

// Fills one record of layout l with realistic values; with `prev` given,
// keeps some of its fields so that adjacent records share values.
std::vector<char> MakeRecord(const Layout& l, std::mt19937& rng, const std::vector<char>* prev = nullptr);

// What a record comes back as after a round trip in `coding`.
std::vector<char> Expected(const Layout& l, const std::vector<char>& rec, Coding coding);

// Compares a restored record with the expectation: doubles within rounding,
// every other byte exactly. Returns "" or a description of the first difference.
std::string Compare(const Layout& l, const std::vector<char>& expected, const char* got);

}  // namespace catalogue_model
