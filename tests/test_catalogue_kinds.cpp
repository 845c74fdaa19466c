// The kinds of the generated catalogue: each has the name the tool prints,
// the JSON and the Python catalogue carry (a rename would change every one of
// those outputs), each name reads back to its kind and nothing else does, and
// the catalogue uses every kind, so that each is covered by the golden
// messages and the sweep.
#include <gtest/gtest.h>

#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "model/CatalogueModel.h"

namespace {

namespace g = trdcomp::generated;
using catalogue_model::CellKind;
using catalogue_model::FieldKind;
using catalogue_model::Get;
using catalogue_model::ShapeKind;

template <class Kind>
struct Named {
    Kind kind;
    const char* name;
};

constexpr Named<FieldKind> kFields[] = {
    {FieldKind::Char, "char"},   {FieldKind::Text, "text"},   {FieldKind::Ascii, "ascii"},     {FieldKind::Bytes, "bytes"},
    {FieldKind::Int32, "int32"}, {FieldKind::Int64, "int64"}, {FieldKind::Double, "double"},   {FieldKind::Uncoded, "uncoded"},
    {FieldKind::Sized, "sized"}, {FieldKind::Array, "array"},
};
constexpr Named<ShapeKind> kShapes[] = {
    {ShapeKind::Single, "single"}, {ShapeKind::Sections, "sections"}, {ShapeKind::Switched, "switched"}};
constexpr Named<CellKind> kCells[] = {{CellKind::codec, "CODEC"},
                                      {CellKind::raw, "RAW"},
                                      {CellKind::no_records, "NO_RECORDS"},
                                      {CellKind::head_only, "HEAD_ONLY"},
                                      {CellKind::nothing, "NOTHING"}};

// Names that are close to a kind's but none: case, spacing, the C type.
const char* const kNoKind[] = {"", "Char", "CHAR", "char ", "int", "long long", "raw", "Raw", "codec", "SINGLE", "array[]"};

template <class Kind, std::size_t N, std::size_t M, class NameOf, class KindOf>
void ExpectNamesRoundTrip(const Named<Kind> (&table)[N], const Kind (&all)[M], NameOf nameOf, KindOf kindOf) {
    ASSERT_EQ(N, M) << "every generated kind is in the table";
    std::set<std::string> names;
    for (std::size_t i = 0; i < N; ++i) {
        SCOPED_TRACE(table[i].name);
        EXPECT_EQ(all[i], table[i].kind) << "the generated list keeps the enum's order";
        EXPECT_STREQ(nameOf(table[i].kind), table[i].name);
        const std::optional<Kind> back = kindOf(table[i].name);
        ASSERT_TRUE(back.has_value());
        EXPECT_EQ(*back, table[i].kind);
        EXPECT_TRUE(names.insert(table[i].name).second) << "two kinds of one name";
    }
    for (const char* text : kNoKind) {
        if (names.count(text) == 0) {
            EXPECT_FALSE(kindOf(text).has_value()) << '"' << text << '"';
        }
    }
}

}  // namespace

TEST(CatalogueKinds, EachKindHasItsNameAndTheNameReadsBack) {
    ExpectNamesRoundTrip(kFields, g::kFieldKinds, g::FieldKindName, g::FieldKindNamed);
    ExpectNamesRoundTrip(kShapes, g::kShapeKinds, g::ShapeKindName, g::ShapeKindNamed);
    ExpectNamesRoundTrip(kCells, g::kCellKinds, g::CellKindName, g::CellKindNamed);
    // The names are constants: a switch the compiler can see through.
    static_assert(g::FieldKindNamed("sized") == FieldKind::Sized);
    static_assert(std::string_view(g::ShapeKindName(ShapeKind::Switched)) == "switched");
}

TEST(CatalogueKinds, TheCatalogueUsesEveryKind) {
    const auto& c = Get();
    std::set<FieldKind> fields;
    for (const auto& [name, layout] : c.layouts)
        for (const auto& f : layout.fields) fields.insert(f.kind);
    std::set<ShapeKind> shapes;
    for (const auto& [id, shape] : c.shapes) shapes.insert(shape.kind);
    std::set<CellKind> cells;
    for (const auto* routes : {&c.requestRoutes, &c.answerRoutes})
        for (const auto& r : *routes)
            for (const auto& cell : r.cell) {
                cells.insert(cell.kind);
                // A cell's text is its codec's id or its kind's name.
                EXPECT_EQ(cell.Text(), cell.IsCodec() ? std::to_string(cell.codec) : catalogue_model::CellKindName(cell.kind));
            }
    EXPECT_EQ(fields.size(), std::size(kFields));
    EXPECT_EQ(shapes.size(), std::size(kShapes));
    EXPECT_EQ(cells.size(), std::size(kCells));
}
