// The golden corpus (TRDCOMP_GOLDEN_DIR), as the tests read it.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace golden {

// A file of the corpus, whole ("req_1002_2008.wire"); empty if missing.
inline std::vector<char> File(const std::string& name) {
    std::ifstream in(std::filesystem::path(TRDCOMP_GOLDEN_DIR) / name, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The wire bytes of the golden message `name` ("req_1002_2008").
inline std::vector<char> Wire(const std::string& name) { return File(name + ".wire"); }

// The names of every golden message, sorted.
inline std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(TRDCOMP_GOLDEN_DIR))
        if (e.path().extension() == ".wire") names.push_back(e.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace golden
