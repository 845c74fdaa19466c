// A decoded message described as nested values (objects whose members keep
// their order, lists, integers, doubles, strings, null), handed to a sink one
// value at a time. The tool's JSON and the Python module's dict are two sinks
// of the one description, so the two cannot come to differ.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tool {

using Json = nlohmann::ordered_json;

class ValueSink {
public:
    virtual ~ValueSink() = default;
    virtual void BeginObject() = 0;
    // The key of the object member whose value comes next.
    virtual void Key(const std::string& key) = 0;
    virtual void EndObject() = 0;
    virtual void BeginList() = 0;
    virtual void EndList() = 0;
    virtual void Null() = 0;
    virtual void Integer(std::int64_t v) = 0;
    virtual void Unsigned(std::uint64_t v) = 0;
    virtual void Double(double v) = 0;
    virtual void String(const std::string& v) = 0;
};

// Builds the JSON document of what it is handed; or, given `each`, hands
// each value of the top level to it as soon as the value is complete.
class JsonSink final : public ValueSink {
public:
    explicit JsonSink(std::function<void(Json)> each = nullptr) : each_(std::move(each)) {}
    void BeginObject() override { open_.push_back(Json::object()); }
    void Key(const std::string& key) override { keys_.push_back(key); }
    void EndObject() override { Close(); }
    void BeginList() override { open_.push_back(Json::array()); }
    void EndList() override { Close(); }
    void Null() override { Put(Json(nullptr)); }
    void Integer(std::int64_t v) override { Put(Json(v)); }
    void Unsigned(std::uint64_t v) override { Put(Json(v)); }
    void Double(double v) override { Put(Json(v)); }
    void String(const std::string& v) override { Put(Json(v)); }
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

}  // namespace tool
