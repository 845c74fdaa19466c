#include "model/CatalogueModel.h"

#include "CatalogueTables.h"
#include "trdcomp/PriceScale.hpp"

#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace catalogue_model {

namespace {

Cell CellOf(const trdcomp::generated::CatalogueCell& c) { return Cell{c.kind, c.kind == CellKind::codec ? c.codec : 0}; }

Catalogue Load() {
    namespace g = trdcomp::generated;
    Catalogue c;
    for (const g::CatalogueLayout& l : g::kCatalogueLayouts) {
        Layout& layout = c.layouts[l.name] = Layout{l.name, l.size, {}, {}};
        layout.codingOrder.assign(g::kCatalogueCodingOrder + l.orderFirst, g::kCatalogueCodingOrder + l.orderFirst + l.orderCount);
        for (int i = l.first; i < l.first + l.count; ++i) {
            const g::CatalogueField& f = g::kCatalogueFields[i];
            layout.fields.push_back(Field{f.kind, f.offset, f.width, f.def, f.limit, f.last, f.entry, f.entries, f.countOffset});
        }
    }
    for (const g::CatalogueRequestLayout& r : g::kCatalogueRequestLayouts) c.requestLayoutOf[r.id] = r.layout;
    for (const g::CatalogueRoute& r : g::kCatalogueRequestRoutes)
        c.requestRoutes.push_back(Route{r.id, {CellOf(r.cell[0]), CellOf(r.cell[1]), CellOf(r.cell[2]), CellOf(r.cell[3])}});
    for (const g::CatalogueRoute& r : g::kCatalogueAnswerRoutes)
        c.answerRoutes.push_back(Route{r.id, {CellOf(r.cell[0]), CellOf(r.cell[1]), CellOf(r.cell[2]), CellOf(r.cell[3])}});
    for (const g::CatalogueShape& s : g::kCatalogueShapes)
        c.shapes[s.id] = Shape{s.kind, std::vector<std::string>(s.layouts, s.layouts + s.count)};
    for (const g::CatalogueAlias& a : g::kCatalogueAliases) c.aliases[a.id] = a.of;
    return c;
}

std::int32_t I32(const std::vector<char>& r, int off) {
    std::int32_t v;
    std::memcpy(&v, r.data() + off, 4);
    return v;
}

double F64(const char* p) {
    double v;
    std::memcpy(&v, p, 8);
    return v;
}

// The documented rounding of a double in each coding.
double Rounded(double v, Coding coding) {
    namespace price = trdcomp::price;
    if (coding == Coding::kFast) return price::RestoredFast(static_cast<std::int64_t>(price::ScaledFast(v)));
    return price::Restored2008(static_cast<std::int64_t>(price::Scaled2008(v)));
}

void FillText(char* p, int width, int len, std::mt19937& rng, bool ascii) {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 .-/";
    for (int i = 0; i < len; ++i) {
        const bool high = !ascii && rng() % 23 == 0;
        p[i] = high ? static_cast<char>(0xC0 + rng() % 32) : kChars[rng() % (sizeof kChars - 1)];
    }
    if (len < width) std::memset(p + len, 0, static_cast<std::size_t>(width - len));
}

void FillField(const Field& f, char* r, std::mt19937& rng) {
    char* p = r + f.offset;
    switch (f.kind) {
        case FieldKind::Char: {
            const int pick = static_cast<int>(rng() % 4);
            *p = pick == 0 ? static_cast<char>(f.def) : pick == 1 ? static_cast<char>('A' + rng() % 26)
                                                               : static_cast<char>(rng());
            break;
        }
        case FieldKind::Text:
        case FieldKind::Ascii: {
            const bool ascii = f.kind == FieldKind::Ascii;
            const int pick = static_cast<int>(rng() % 6);
            const int maxLen = ascii ? f.width - 1 : f.width;  // a full ascii text misaligns by design
            const int cap = maxLen < 40 ? maxLen : 40;
            const int len = pick == 0 ? 0 : pick == 1 ? maxLen : static_cast<int>(rng() % (cap + 1));
            FillText(p, f.width, len, rng, ascii);
            break;
        }
        case FieldKind::Bytes: {
            const int used = static_cast<int>(rng() % (f.width + 1));
            for (int i = 0; i < f.width; ++i) p[i] = i < used ? static_cast<char>(rng()) : 0;
            break;
        }
        case FieldKind::Int32: {
            const std::int32_t v = rng() % 3 == 0 ? -static_cast<std::int32_t>(rng() % 100000) : static_cast<std::int32_t>(rng());
            std::memcpy(p, &v, 4);
            break;
        }
        case FieldKind::Int64: {
            const std::int64_t v = (static_cast<std::int64_t>(rng()) << 20) - (std::int64_t{1} << 45);
            std::memcpy(p, &v, 8);
            break;
        }
        case FieldKind::Double: {
            const double v = (static_cast<double>(rng() % 20000000) - 5000000.0) / 1000.0 + (rng() % 10) * 0.00001;
            std::memcpy(p, &v, 8);
            break;
        }
        case FieldKind::Sized: {
            static const std::int32_t kLengths[] = {0, 100, 32768, 40000, -5, 7};
            for (int i = 0; i < f.width; ++i) p[i] = static_cast<char>(rng());
            const std::int32_t len = kLengths[rng() % 6];
            std::memcpy(p + f.width, &len, 4);
            break;
        }
        case FieldKind::Uncoded:
            for (int i = 0; i < f.width; ++i) p[i] = static_cast<char>(rng() | 1);  // never carried
            break;
        case FieldKind::Array: {
            const Layout& e = Get().At(f.entry);
            const int stride = e.size;
            for (int k = 0; k < f.entries; ++k)
                for (const Field& sub : e.fields) FillField(sub, p + k * stride, rng);
            break;
        }
    }
}

}  // namespace

std::string Cell::Text() const { return IsCodec() ? std::to_string(codec) : CellKindName(kind); }

const Catalogue& Get() {
    static const Catalogue c = Load();
    return c;
}

const Route* Catalogue::RequestRoute(int id) const {
    for (const Route& r : requestRoutes)
        if (r.id == id) return &r;
    return nullptr;
}

const Route* Catalogue::AnswerRoute(int id) const {
    for (const Route& r : answerRoutes)
        if (r.id == id) return &r;
    return nullptr;
}

Cell Catalogue::PackCell(bool request, int id, bool fast) const {
    const Route* r = request ? RequestRoute(id) : AnswerRoute(id);
    return r ? r->cell[fast] : Cell{};
}

Cell Catalogue::RestoreCell(bool request, int id, bool fast) const {
    const Route* r = request ? RequestRoute(id) : AnswerRoute(id);
    return r ? r->cell[2 + fast] : Cell{};
}

const Shape& Catalogue::AnswerShape(int id) const {
    auto it = shapes.find(id);
    if (it == shapes.end()) {
        const auto alias = aliases.find(id);
        if (alias != aliases.end()) it = shapes.find(alias->second);
    }
    if (it == shapes.end()) throw std::runtime_error("no answer shape for " + std::to_string(id));
    return it->second;
}

const std::string& Shape::LayoutOf(int j, int count) const {
    static const std::string none;
    if (kind == ShapeKind::Switched) return layouts[count < 2 ? 0 : 1];
    return j >= 0 && j < static_cast<int>(layouts.size()) ? layouts[static_cast<std::size_t>(j)] : none;
}

std::vector<char> MakeRecord(const Layout& l, std::mt19937& rng, const std::vector<char>* prev) {
    std::vector<char> r(static_cast<std::size_t>(l.size), 0);
    for (const Field& f : l.fields) {
        if (prev && rng() % 3 != 0) {
            std::memcpy(r.data() + f.offset, prev->data() + f.offset,
                        static_cast<std::size_t>(f.kind == FieldKind::Sized ? f.width + 4 : f.width));
            continue;
        }
        FillField(f, r.data(), rng);
        // The count of a counted array: below, within and above its capacity.
        for (const Field& g : l.fields)
            if (g.kind == FieldKind::Array && g.countOffset == f.offset) {
                static const std::int32_t kCounts[] = {-1, 0, 3, 12, 15};
                std::memcpy(r.data() + f.offset, &kCounts[rng() % 5], 4);
            }
    }
    return r;
}

std::vector<char> Expected(const Layout& l, const std::vector<char>& rec, Coding coding) {
    std::vector<char> e = rec;
    for (const Field& f : l.fields) {
        char* p = e.data() + f.offset;
        switch (f.kind) {
            case FieldKind::Uncoded: std::memset(p, 0, static_cast<std::size_t>(f.width)); break;
            case FieldKind::Text:
                if (coding == Coding::kFast) {
                    // A counted string keeps at most width - 1 characters.
                    const std::size_t n = ::strnlen(p, static_cast<std::size_t>(f.width));
                    if (n == static_cast<std::size_t>(f.width)) p[f.width - 1] = 0;
                }
                break;
            case FieldKind::Double: {
                const double v = Rounded(F64(p), coding);
                std::memcpy(p, &v, 8);
                break;
            }
            case FieldKind::Sized: {
                const std::int32_t len = I32(rec, f.offset + f.width);
                const int kept = coding == Coding::kFast ? (len >= 0 && len <= f.width ? len : f.width)
                                                         : (len < 0 ? 0 : len > f.width ? f.width : len);
                std::memset(p + kept, 0, static_cast<std::size_t>(f.width - kept));
                break;
            }
            case FieldKind::Array: {
                const Layout& entry = Get().At(f.entry);
                const std::int32_t count = I32(rec, f.countOffset);
                const int coded =
                    coding == Coding::kFast ? f.entries : count < 0 ? 0 : count > f.entries ? f.entries : count;
                for (int k = 0; k < f.entries; ++k) {
                    char* slot = p + k * entry.size;
                    if (k >= coded) {
                        std::memset(slot, 0, static_cast<std::size_t>(entry.size));
                    } else if (coding == Coding::kFast) {
                        for (const Field& sub : entry.fields) {
                            if (sub.kind != FieldKind::Text) continue;
                            if (::strnlen(slot + sub.offset, static_cast<std::size_t>(sub.width)) ==
                                static_cast<std::size_t>(sub.width))
                                slot[sub.offset + sub.width - 1] = 0;
                        }
                    }
                }
                break;
            }
            // Carried as they are.
            case FieldKind::Char:
            case FieldKind::Ascii:
            case FieldKind::Bytes:
            case FieldKind::Int32:
            case FieldKind::Int64: break;
        }
    }
    return e;
}

std::string Compare(const Layout& l, const std::vector<char>& expected, const char* got) {
    std::vector<bool> isDouble(static_cast<std::size_t>(l.size), false);
    for (const Field& f : l.fields) {
        if (f.kind != FieldKind::Double) continue;
        for (int i = 0; i < 8; ++i) isDouble[static_cast<std::size_t>(f.offset + i)] = true;
        const double want = F64(expected.data() + f.offset);
        const double have = F64(got + f.offset);
        if (std::fabs(want - have) > 1e-9 * (1.0 + std::fabs(want))) {
            std::ostringstream s;
            s << l.name << " double at " << f.offset << ": expected " << want << ", got " << have;
            return s.str();
        }
    }
    for (int i = 0; i < l.size; ++i) {
        if (isDouble[static_cast<std::size_t>(i)] || expected[static_cast<std::size_t>(i)] == got[i]) continue;
        std::ostringstream s;
        s << l.name << " byte " << i << ": expected " << static_cast<int>(static_cast<unsigned char>(expected[static_cast<std::size_t>(i)]))
          << ", got " << static_cast<int>(static_cast<unsigned char>(got[i]));
        return s.str();
    }
    return "";
}

}  // namespace catalogue_model
