// trdcomp_golden: the frozen golden corpus of the wire format.
//
// For every function id with a codec, both codings, requests and answers
// (single, several sections, count-switched at 1 and 2 records), a sample
// message is built from deterministic realistic records and passed through
// the classic interface. Each case has three files:
//   NAME.input     what the caller handed over: a request's 76-byte head and
//                  its records; an answer's 120-byte tagANS_Proc and arrays
//   NAME.wire      the packed message
//   NAME.restored  the restored buffer (its outLen bytes)
// `--write DIR` regenerates the corpus; `--check DIR` rebuilds every case
// and fails on any difference from the files (the wire format is frozen).
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "model/Samples.h"
#include "trdcomp/TrdCompData.h"

namespace fs = std::filesystem;
using catalogue_model::Coding;

namespace {

struct Case {
    std::string name;
    std::vector<char> input, wire, restored;
};

void Request(int id, Coding coding, std::vector<Case>& out) {
    catalogue_model::RequestSample s;
    if (!catalogue_model::SampleRequest(id, coding, s)) return;
    Case k;
    k.name = "req_" + std::to_string(id) + (coding == Coding::kFast ? "_fast" : "_2008");
    k.input.assign(reinterpret_cast<const char*>(&s.head), reinterpret_cast<const char*>(&s.head) + 76);
    k.input.insert(k.input.end(), s.data.begin(), s.data.end());
    std::vector<char> wire(1 << 20);
    int len = 0;
    CTrdCompData::PackReq2008(wire.data(), len, &s.head, s.data.data(), static_cast<int>(s.data.size()), 0);
    k.wire.assign(wire.begin(), wire.begin() + len);
    char* restored = nullptr;
    int restoredLen = 0;
    if (CTrdCompData::RestoreReq2008(k.wire.data(), len, &restored, restoredLen, 0) == 1 && restored)
        k.restored.assign(restored, restored + restoredLen);
    CTrdCompData::ReleaseAnsData(restored);
    out.push_back(k);
}

void Answer(int id, Coding coding, std::vector<Case>& out) {
    const bool fast = coding == Coding::kFast;
    for (auto& s : catalogue_model::SampleAnswers(id, coding)) {
        Case k;
        k.name = "ans_" + std::to_string(id) + (fast ? "_fast" : "_2008") + s.variant;
        k.input.assign(reinterpret_cast<const char*>(&s.proc), reinterpret_cast<const char*>(&s.proc) + sizeof s.proc);
        for (const auto& a : s.arrays) k.input.insert(k.input.end(), a.begin(), a.end());
        std::vector<char> wire(1 << 20, 0);
        int len = 0;
        CTrdCompData::PackAns2008(wire.data(), static_cast<int>(wire.size()), len, &s.proc, s.arrays[0].data(),
                                  s.arrays[1].data(), s.arrays[2].data(), s.arrays[3].data(), s.arrays[4].data(), 0,
                                  fast ? 0x10 : 0);
        k.wire.assign(wire.begin(), wire.begin() + len);
        char* restored = nullptr;
        int restoredLen = 0;
        if (CTrdCompData::RestoreAns2008(k.wire.data(), len, &restored, restoredLen, 0) == 1 && restored)
            k.restored.assign(restored, restored + restoredLen);
        CTrdCompData::ReleaseAnsData(restored);
        out.push_back(k);
    }
}

std::vector<Case> BuildCorpus() {
    std::vector<Case> cases;
    for (int id : catalogue_model::RoutedIds())
        for (Coding coding : {Coding::k2008, Coding::kFast}) {
            Request(id, coding, cases);
            Answer(id, coding, cases);
        }
    return cases;
}

std::vector<char> ReadFile(const fs::path& p, bool& ok) {
    std::ifstream in(p, std::ios::binary);
    ok = static_cast<bool>(in);
    return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const char* const kParts[] = {".input", ".wire", ".restored"};

const std::vector<char>& Part(const Case& k, int i) { return i == 0 ? k.input : i == 1 ? k.wire : k.restored; }

int Write(const fs::path& dir, const std::vector<Case>& cases) {
    fs::create_directories(dir);
    for (const auto& entry : fs::directory_iterator(dir)) fs::remove(entry.path());
    for (const Case& k : cases) {
        for (int i = 0; i < 3; ++i) {
            std::ofstream out(dir / (k.name + kParts[i]), std::ios::binary);
            out.write(Part(k, i).data(), static_cast<std::streamsize>(Part(k, i).size()));
            if (!out) {
                std::cerr << "trdcomp_golden: cannot write " << (dir / (k.name + kParts[i])) << "\n";
                return 1;
            }
        }
    }
    std::cout << "wrote " << cases.size() << " cases (" << 3 * cases.size() << " files) to " << dir << "\n";
    return 0;
}

int Check(const fs::path& dir, const std::vector<Case>& cases) {
    int failures = 0;
    std::set<std::string> expected;
    for (const Case& k : cases) {
        for (int i = 0; i < 3; ++i) {
            const std::string file = k.name + kParts[i];
            expected.insert(file);
            bool ok = false;
            const std::vector<char> frozen = ReadFile(dir / file, ok);
            const std::vector<char>& now = Part(k, i);
            if (!ok) {
                std::cout << "missing: " << file << "\n";
                ++failures;
            } else if (frozen != now) {
                std::size_t at = 0;
                while (at < frozen.size() && at < now.size() && frozen[at] == now[at]) ++at;
                std::cout << "differs: " << file << " at byte " << at << " (frozen " << frozen.size() << " bytes, now "
                          << now.size() << ")\n";
                ++failures;
            }
        }
    }
    if (fs::is_directory(dir))
        for (const auto& entry : fs::directory_iterator(dir))
            if (!expected.count(entry.path().filename().string())) {
                std::cout << "no longer produced: " << entry.path().filename().string() << "\n";
                ++failures;
            }
    std::cout << cases.size() << " golden cases checked, " << failures << " differences\n";
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (argc != 3 || (mode != "--write" && mode != "--check")) {
        std::cerr << "usage: trdcomp_golden --check DIR   compare the corpus in DIR with what the library produces now\n"
                     "       trdcomp_golden --write DIR   regenerate the corpus (a deliberate wire format change)\n";
        return mode == "--help" || mode == "-h" ? 0 : 2;
    }
    const std::vector<Case> cases = BuildCorpus();
    return mode == "--write" ? Write(argv[2], cases) : Check(argv[2], cases);
}
