#include "model/CatalogueModel.h"

#include <cmath>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace catalogue_model {

namespace {

Catalogue Load() {
    Catalogue c;
    Layout* cur = nullptr;
    std::vector<Route>* routes = nullptr;
    auto add = [&](const char* kind, int off, int width, int def = 0) {
        Field f;
        f.kind = kind;
        f.offset = off;
        f.width = width;
        f.def = def;
        cur->fields.push_back(f);
    };
#define TRD_LAYOUT(NAME, SIZE) cur = &(c.layouts[#NAME] = Layout{#NAME, SIZE, {}});
#define TRD_END(NAME)
#define TRD_CHAR(OFF) add("char", OFF, 1);
#define TRD_CHAR_DEF(OFF, D) add("char", OFF, 1, D);
#define TRD_TEXT(OFF, N) add("text", OFF, N);
#define TRD_TEXT_LIMIT(OFF, N, LIMIT) add("text", OFF, N);
#define TRD_TEXT_LAST(OFF, N) add("text", OFF, N);
#define TRD_ASCII(OFF, N) add("ascii", OFF, N);
#define TRD_BYTES(OFF, N) add("bytes", OFF, N);
#define TRD_INT32(OFF) add("int32", OFF, 4);
#define TRD_INT64(OFF) add("int64", OFF, 8);
#define TRD_DOUBLE(OFF) add("double", OFF, 8);
#define TRD_UNCODED(OFF, N) add("uncoded", OFF, N);
#define TRD_SIZED_BLOCK(OFF, N) add("sized", OFF, N);
#define TRD_COUNTED_ARRAY(OFF, E, ENTRY, COUNT_OFF)                      \
    {                                                                    \
        add("array", OFF, E * c.layouts.at(#ENTRY).size);                \
        cur->fields.back().entry = #ENTRY;                               \
        cur->fields.back().entries = E;                                  \
        cur->fields.back().countOffset = COUNT_OFF;                      \
    }
#define TRD_REQ_LAYOUT_IDS(NAME, ...) \
    for (int id : std::vector<int>{__VA_ARGS__}) c.requestLayoutOf[id] = #NAME;
#define TRD_ROUTE(ID, P8, PF, R8, RF) routes->push_back(Route{ID, {#P8, #PF, #R8, #RF}});
#define TRD_ANS_SINGLE(ID, L) c.shapes[ID] = Shape{"single", {#L}};
#define TRD_ANS_SECTIONS2(ID, L1, L2) c.shapes[ID] = Shape{"sections", {#L1, #L2}};
#define TRD_ANS_SECTIONS3(ID, L1, L2, L3) c.shapes[ID] = Shape{"sections", {#L1, #L2, #L3}};
#define TRD_ANS_SWITCHED(ID, N, E) c.shapes[ID] = Shape{"switched", {#N, #E}};
#define TRD_ANS_ALIAS(ID, OF) c.aliases[ID] = OF;
#include "request_layouts.def"
#include "answer_layouts.def"
    routes = &c.requestRoutes;
#include "request_routes.def"
    routes = &c.answerRoutes;
#include "answer_routes.def"
#include "answer_shapes.def"
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
    if (coding == Coding::kFast) return static_cast<double>(static_cast<std::int64_t>(v * 1000.0 + 0.00005)) / 1000.0;
    return static_cast<double>(static_cast<std::int64_t>((v + 0.00005) * 10000.0)) * 0.0001;
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
    if (f.kind == "char") {
        const int pick = static_cast<int>(rng() % 4);
        *p = pick == 0 ? static_cast<char>(f.def) : pick == 1 ? static_cast<char>('A' + rng() % 26)
                                                           : static_cast<char>(rng());
    } else if (f.kind == "text" || f.kind == "ascii") {
        const bool ascii = f.kind == "ascii";
        const int pick = static_cast<int>(rng() % 6);
        const int maxLen = ascii ? f.width - 1 : f.width;  // a full ascii text misaligns by design
        const int cap = maxLen < 40 ? maxLen : 40;
        const int len = pick == 0 ? 0 : pick == 1 ? maxLen : static_cast<int>(rng() % (cap + 1));
        FillText(p, f.width, len, rng, ascii);
    } else if (f.kind == "bytes") {
        const int used = static_cast<int>(rng() % (f.width + 1));
        for (int i = 0; i < f.width; ++i) p[i] = i < used ? static_cast<char>(rng()) : 0;
    } else if (f.kind == "int32") {
        const std::int32_t v = rng() % 3 == 0 ? -static_cast<std::int32_t>(rng() % 100000) : static_cast<std::int32_t>(rng());
        std::memcpy(p, &v, 4);
    } else if (f.kind == "int64") {
        const std::int64_t v = (static_cast<std::int64_t>(rng()) << 20) - (std::int64_t{1} << 45);
        std::memcpy(p, &v, 8);
    } else if (f.kind == "double") {
        const double v = (static_cast<double>(rng() % 20000000) - 5000000.0) / 1000.0 + (rng() % 10) * 0.00001;
        std::memcpy(p, &v, 8);
    } else if (f.kind == "sized") {
        static const std::int32_t kLengths[] = {0, 100, 32768, 40000, -5, 7};
        for (int i = 0; i < f.width; ++i) p[i] = static_cast<char>(rng());
        const std::int32_t len = kLengths[rng() % 6];
        std::memcpy(p + f.width, &len, 4);
    } else if (f.kind == "uncoded") {
        for (int i = 0; i < f.width; ++i) p[i] = static_cast<char>(rng() | 1);  // never carried
    } else if (f.kind == "array") {
        const Layout& e = Get().At(f.entry);
        const int stride = e.size;
        for (int k = 0; k < f.entries; ++k)
            for (const Field& sub : e.fields) FillField(sub, p + k * stride, rng);
    }
}

}  // namespace

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
    if (kind == "switched") return layouts[count < 2 ? 0 : 1];
    return j >= 0 && j < static_cast<int>(layouts.size()) ? layouts[static_cast<std::size_t>(j)] : none;
}

std::vector<char> MakeRecord(const Layout& l, std::mt19937& rng, const std::vector<char>* prev) {
    std::vector<char> r(static_cast<std::size_t>(l.size), 0);
    for (const Field& f : l.fields) {
        if (prev && rng() % 3 != 0) {
            std::memcpy(r.data() + f.offset, prev->data() + f.offset,
                        static_cast<std::size_t>(f.kind == "sized" ? f.width + 4 : f.width));
            continue;
        }
        FillField(f, r.data(), rng);
        // The count of a counted array: below, within and above its capacity.
        for (const Field& g : l.fields)
            if (g.kind == "array" && g.countOffset == f.offset) {
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
        if (f.kind == "uncoded") {
            std::memset(p, 0, static_cast<std::size_t>(f.width));
        } else if (f.kind == "text" && coding == Coding::kFast) {
            // A counted string keeps at most width - 1 characters.
            const std::size_t n = ::strnlen(p, static_cast<std::size_t>(f.width));
            if (n == static_cast<std::size_t>(f.width)) p[f.width - 1] = 0;
        } else if (f.kind == "double") {
            const double v = Rounded(F64(p), coding);
            std::memcpy(p, &v, 8);
        } else if (f.kind == "sized") {
            const std::int32_t len = I32(rec, f.offset + f.width);
            const int kept = coding == Coding::kFast ? (len >= 0 && len <= f.width ? len : f.width)
                                                     : (len < 0 ? 0 : len > f.width ? f.width : len);
            std::memset(p + kept, 0, static_cast<std::size_t>(f.width - kept));
        } else if (f.kind == "array") {
            const Layout& entry = Get().At(f.entry);
            const std::int32_t count = I32(rec, f.countOffset);
            const int coded = coding == Coding::kFast ? f.entries : count < 0 ? 0 : count > f.entries ? f.entries : count;
            for (int k = 0; k < f.entries; ++k) {
                char* slot = p + k * entry.size;
                if (k >= coded) {
                    std::memset(slot, 0, static_cast<std::size_t>(entry.size));
                } else if (coding == Coding::kFast) {
                    for (const Field& sub : entry.fields) {
                        if (sub.kind != "text") continue;
                        if (::strnlen(slot + sub.offset, static_cast<std::size_t>(sub.width)) ==
                            static_cast<std::size_t>(sub.width))
                            slot[sub.offset + sub.width - 1] = 0;
                    }
                }
            }
        }
    }
    return e;
}

std::string Compare(const Layout& l, const std::vector<char>& expected, const char* got) {
    std::vector<bool> isDouble(static_cast<std::size_t>(l.size), false);
    for (const Field& f : l.fields) {
        if (f.kind != "double") continue;
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
