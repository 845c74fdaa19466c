#include "ValueSink.h"

#include <stdexcept>

namespace tool {

void JsonSink::Close() {
    if (open_.empty()) throw std::logic_error("a value closed that was not opened");
    Json v = std::move(open_.back());
    open_.pop_back();
    Put(std::move(v));
}

void JsonSink::Put(Json v) {
    if (open_.empty()) {
        if (each_)
            each_(std::move(v));
        else
            done_ = std::move(v);
        return;
    }
    Json& into = open_.back();
    if (into.is_array()) {
        into.push_back(std::move(v));
        return;
    }
    if (keys_.empty()) throw std::logic_error("an object member without a key");
    into[keys_.back()] = std::move(v);
    keys_.pop_back();
}

}  // namespace tool
