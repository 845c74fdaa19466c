// A decoded message printed as text: its head word by word, then every
// section's records field by field (with each Fast field's origin when
// asked), as `trdcomp decode` shows it.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <cstdio>
#include <iomanip>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Message.h"
#include "trdcomp/MessageHead.hpp"
#include "trdcomp/trdcomp.hpp"

namespace tool {

namespace head = trdcomp::head;

std::string FlagsText(std::int32_t flags) {
    char hex[16] = {'0', 'x'};
    std::string text(hex, std::to_chars(hex + 2, hex + sizeof hex, static_cast<unsigned>(flags), 16).ptr);
    const char* sep = " (";
    if (head::Coded(flags)) text += std::exchange(sep, ", "), text += "coded";
    if (head::SeveralArrays(flags)) text += std::exchange(sep, ", "), text += "several arrays";
    if (const int v = head::FastVersion(flags)) text += std::exchange(sep, ", "), text += "fast:" + std::to_string(v);
    if (*sep == ',') text += ')';
    return text;
}

std::string HeadValueText(const std::string& key, const Json& v) {
    return key == "nFlags" && v.is_number_integer() ? FlagsText(v.get<std::int32_t>()) : v.dump();
}

namespace {

// `text` and spaces up to `width` (at least one column apart when longer).
void Padded(std::string& out, std::string_view text, std::size_t width) {
    out.append(text);
    if (text.size() < width) out.append(width - text.size(), ' ');
}

// The head's members a line each: its name, then its value as the JSON
// writes it (the flags word as FlagsText).
class HeadLines final : public ValueSink {
public:
    explicit HeadLines(std::string& out) : out_(out) {}
    void BeginObject() override { Open(&JsonTextSink::BeginObject); }
    void Key(std::string_view key) override {
        if (depth_ == 1) {
            out_ += "  ";
            Padded(out_, key, 10);
            out_ += ' ';
            flags_ = key == "nFlags";
            return;
        }
        value_->Key(key);
    }
    void EndObject() override { Close(&JsonTextSink::EndObject); }
    void BeginList() override { Open(&JsonTextSink::BeginList); }
    void EndList() override { Close(&JsonTextSink::EndList); }
    void Null() override { Value([](JsonTextSink& s) { s.Null(); }); }
    void Integer(std::int64_t v) override {
        if (depth_ == 1 && flags_) {
            out_ += FlagsText(static_cast<std::int32_t>(v)) + "\n";
            return;
        }
        Value([&](JsonTextSink& s) { s.Integer(v); });
    }
    void Unsigned(std::uint64_t v) override { Value([&](JsonTextSink& s) { s.Unsigned(v); }); }
    void Double(double v) override { Value([&](JsonTextSink& s) { s.Double(v); }); }
    void String(std::string_view v) override { Value([&](JsonTextSink& s) { s.String(v); }); }

private:
    // A value of a member (depth 1) or inside one.
    template <class F>
    void Value(F f) {
        if (depth_ == 1) Start();
        f(*value_);
        if (depth_ == 1) End();
    }
    void Open(void (JsonTextSink::*open)()) {
        if (depth_ == 1) Start();
        if (depth_ >= 1) ((*value_).*open)();
        ++depth_;
    }
    void Close(void (JsonTextSink::*close)()) {
        --depth_;
        if (depth_ >= 1) ((*value_).*close)();
        if (depth_ == 1) End();
    }
    void Start() { value_.emplace(text_); }
    void End() {
        value_.reset();
        out_.append(text_.View());
        out_ += '\n';
        text_.Clear();
    }

    std::string& out_;
    int depth_ = 0;
    bool flags_ = false;
    TextBuffer text_;
    std::optional<JsonTextSink> value_;
};

}  // namespace

namespace {

// Writes `text` at `at` and spaces after it up to `width`.
char* PutPadded(char* at, std::string_view text, std::size_t width) {
    if (text.size() <= 16) {
        for (const char c : text) *at++ = c;  // a few bytes: no call
    } else {
        std::memcpy(at, text.data(), text.size());
        at += text.size();
    }
    for (std::size_t k = text.size(); k < width; ++k) *at++ = ' ';
    return at;
}

std::size_t Width(std::string_view text, std::size_t width) { return std::max(text.size(), width); }

}  // namespace

void AppendText(const Decoded& m, TextBuffer& out, bool sent) {
    const auto origins = sent ? SentFields(m) : std::vector<std::vector<std::map<int, Origin>>>();
    std::string line = (m.request ? "request " : "answer ") + std::to_string(HeadWord(m.wire, head::kFunctionIdAt)) + ", " +
                       Plural(static_cast<long long>(m.wire.size()), "byte") + ", coding " + CodingName(m.fastVersion);
    if (m.fastVersion == 0) line += " (flag " + std::to_string(static_cast<int>(m.flag)) + ")";
    line += "\n\nhead\n";
    HeadLines lines(line);
    DescribeHead(m, lines);
    if (m.restoredNothing) line += "\nthe restore handed back no records\n";
    out.Append(line);
    thread_local std::vector<Row> rows;
    for (std::size_t j = 0; j < m.sections.size(); ++j) {
        const Section& s = m.sections[j];
        out.Append("\nsection " + std::to_string(j + 1) + ": " + (s.layout ? s.layout->name : std::string("raw records")) + ", " +
                   Plural(s.count, "record") + " of " + Plural(s.slot, "byte") +
                   (s.size != s.slot ? " (sender's size " + std::to_string(s.size) + ")" : "") + "\n");
        for (std::size_t i = 0; s.slot > 0 && (i + 1) * static_cast<std::size_t>(s.slot) <= s.records.size(); ++i) {
            const char* rec = s.records.data() + i * static_cast<std::size_t>(s.slot);
            char number[24];
            out.Append("record ");
            out.Append(std::string_view(number, static_cast<std::size_t>(std::to_chars(number, number + 24, i).ptr - number)));
            out.Append('\n');
            if (!s.layout) {
                out.Append("  ");
                AppendHexAt(out.Grow(2 * static_cast<std::size_t>(s.slot)), rec, static_cast<std::size_t>(s.slot));
                out.Append('\n');
                continue;
            }
            FillRecordRows(*s.layout, rec, rows);
            std::size_t kindWidth = 4;
            for (const Row& r : rows) kindWidth = std::max(kindWidth, r.kind.size());
            const std::map<int, Origin>* origin = j < origins.size() && i < origins[j].size() ? &origins[j][i] : nullptr;
            char* at = out.Grow(kindWidth + 32);
            at = PutPadded(at, "  offset ", 0);
            at = PutPadded(at, "kind", kindWidth + 2);
            const std::string_view tail = origin ? "width  origin    value\n" : "width  value\n";
            at = PutPadded(at, tail, 0);
            out.Unused(static_cast<std::size_t>(out.View().data() + out.Size() - at));
            for (const Row& r : rows) {
                char offset[24], width[24];
                const std::string_view o(offset, static_cast<std::size_t>(std::to_chars(offset, offset + 24, r.offset).ptr - offset));
                const std::string_view w(width, static_cast<std::size_t>(std::to_chars(width, width + 24, r.width).ptr - width));
                std::string_view source;
                if (origin) {
                    const auto found = origin->find(r.offset);
                    source = found != origin->end() ? OriginName(found->second) : "-";
                }
                const std::size_t n = 2 + Width(o, 7) + Width(r.kind, kindWidth + 2) + Width(w, 7) + (origin ? Width(source, 10) : 0) +
                                      r.value.size() + 1;
                at = out.Grow(n);
                at = PutPadded(at, "  ", 0);
                at = PutPadded(at, o, 7);
                at = PutPadded(at, r.kind, kindWidth + 2);
                at = PutPadded(at, w, 7);
                if (origin) at = PutPadded(at, source, 10);
                at = PutPadded(at, r.value, 0);
                *at = '\n';
            }
        }
    }
    if (!m.trailing.empty()) {
        // The first 64 of them; the JSON keeps them all.
        const std::size_t shown = std::min<std::size_t>(m.trailing.size(), 64);
        out.Append("\ntrailing bytes: " + Plural(static_cast<long long>(m.trailing.size()), "byte") + " behind the last record: " +
                   Hex(m.trailing.data(), shown) + (shown < m.trailing.size() ? "..." : "") + "\n");
    }
}

void PrintText(const Decoded& m, std::ostream& out, bool sent) {
    TextBuffer text;
    AppendText(m, text, sent);
    out.write(text.View().data(), static_cast<std::streamsize>(text.Size()));
}

}  // namespace tool
