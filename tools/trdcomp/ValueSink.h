// A decoded message described as nested values (objects whose members keep
// their order, lists, integers, doubles, strings, null), handed to a sink one
// value at a time. The tool's JSON and the Python module's dict are two sinks
// of the one description, so the two cannot come to differ.
#pragma once

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tool {

// JSON as the tool writes it (members in the order they are written)...
using Json = nlohmann::ordered_json;
// ... and as it reads it (members found by key, not by a walk of them all).
using JsonIn = nlohmann::json;

// The shortest text that reads back to v, as std::to_chars writes it (at
// most 40 characters at out; the count returned): restored prices, numbers
// of a few decimals, are written without its general search.
std::size_t ShortestDouble(double v, char* out);

// Appends the hex digits of n bytes, two a byte, lower case; or writes them at q.
void AppendHex(std::string& out, const char* p, std::size_t n);
void AppendHexAt(char* q, const char* p, std::size_t n);

class ValueSink {
public:
    virtual ~ValueSink() = default;
    virtual void BeginObject() = 0;
    // The key of the object member whose value comes next.
    virtual void Key(std::string_view key) = 0;
    virtual void EndObject() = 0;
    virtual void BeginList() = 0;
    virtual void EndList() = 0;
    virtual void Null() = 0;
    virtual void Integer(std::int64_t v) = 0;
    virtual void Unsigned(std::uint64_t v) = 0;
    virtual void Double(double v) = 0;
    virtual void String(std::string_view v) = 0;
    // Bytes as a string of hex digits, two a byte.
    virtual void HexBytes(const char* p, std::size_t n);
};

// Builds the JSON document of what it is handed; or, given `each`, hands
// each value of the top level to it as soon as the value is complete.
class JsonSink final : public ValueSink {
public:
    explicit JsonSink(std::function<void(Json)> each = nullptr) : each_(std::move(each)) {}
    void BeginObject() override { open_.push_back(Json::object()); }
    void Key(std::string_view key) override { keys_.emplace_back(key); }
    void EndObject() override { Close(); }
    void BeginList() override { open_.push_back(Json::array()); }
    void EndList() override { Close(); }
    void Null() override { Put(Json(nullptr)); }
    void Integer(std::int64_t v) override { Put(Json(v)); }
    void Unsigned(std::uint64_t v) override { Put(Json(v)); }
    void Double(double v) override { Put(Json(v)); }
    void String(std::string_view v) override { Put(Json(std::string(v))); }
    // The value described, once every object and list is closed.
    Json Take() { return std::move(done_); }

private:
    void Close();
    void Put(Json v);

    std::vector<Json> open_;         // the objects and lists not closed yet, outermost first
    std::vector<std::string> keys_;  // the keys whose values are still to come, innermost last
    Json done_;
    std::function<void(Json)> each_;
};

// Text written at its end, a piece at a time: room is made without being
// cleared first, and kept when the text is emptied.
class TextBuffer {
public:
    // Room for n more bytes at the end; the text grows by them.
    char* Grow(std::size_t n) {
        if (size_ + n > capacity_) Reserve(size_ + n);
        char* at = data_.get() + size_;
        size_ += n;
        return at;
    }
    // Gives back the last n bytes (of a Grow that wrote fewer).
    void Unused(std::size_t n) { size_ -= n; }
    void Append(std::string_view v) {
        if (!v.empty()) std::memcpy(Grow(v.size()), v.data(), v.size());
    }
    void Append(char c) { *Grow(1) = c; }
    std::string_view View() const { return std::string_view(data_.get(), size_); }
    std::size_t Size() const { return size_; }
    void Clear() { size_ = 0; }

private:
    void Reserve(std::size_t n);
    std::unique_ptr<char[]> data_;
    std::size_t size_ = 0, capacity_ = 0;
};

// Writes the JSON text of what it is handed, on one line, at the end of
// `out`: no document is built, so a message's JSON costs what its text does.
class JsonTextSink final : public ValueSink {
public:
    explicit JsonTextSink(TextBuffer& out) : out_(out) {}
    void BeginObject() override { Open('{'); }
    void Key(std::string_view key) override {
        // Keys are the describers' own names: nothing in them to escape.
        char* at = Grow(key.size() + 4);
        if (!first_) *at++ = ',';
        else Unused(1);
        first_ = false;
        *at++ = '"';
        for (const char c : key) *at++ = c;  // a few bytes: no call
        at[0] = '"';
        at[1] = ':';
        afterKey_ = true;
    }
    void EndObject() override { Close('}'); }
    void BeginList() override { Open('['); }
    void EndList() override { Close(']'); }
    void Null() override;
    void Integer(std::int64_t v) override {
        Separate();
        char* at = Grow(24);
        Unused(static_cast<std::size_t>(at + 24 - std::to_chars(at, at + 24, v).ptr));
    }
    void Unsigned(std::uint64_t v) override {
        Separate();
        char* at = Grow(24);
        Unused(static_cast<std::size_t>(at + 24 - std::to_chars(at, at + 24, v).ptr));
    }
    void Double(double v) override;
    void String(std::string_view v) override;
    void HexBytes(const char* p, std::size_t n) override;

private:
    char* Grow(std::size_t n) { return out_.Grow(n); }
    void Unused(std::size_t n) { out_.Unused(n); }
    void Put(char c) { out_.Append(c); }
    // The comma before a value that is not the first of its object or list.
    void Separate() {
        if (afterKey_) afterKey_ = false;
        else if (!first_) Put(',');
        first_ = false;
    }
    void Open(char c) {
        Separate();
        Put(c);
        first_ = true;
    }
    void Close(char c) {
        Put(c);
        first_ = false;
    }
    void Quoted(std::string_view v);

    TextBuffer& out_;
    bool first_ = true;     // the next value opens its object or list (or the text)
    bool afterKey_ = false; // the next value is a member's, behind its key
};

}  // namespace tool
