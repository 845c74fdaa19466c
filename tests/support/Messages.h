// Small helpers for building messages in tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "trdcomp/TrdCompData.h"

namespace testmsg {

inline std::int32_t Word(const char* p, int offset) {
    std::int32_t v;
    std::memcpy(&v, p + offset, 4);
    return v;
}
inline void SetWord(char* p, int offset, std::int32_t v) { std::memcpy(p + offset, &v, 4); }

inline tagREQ_HEAD ReqHead(int id, int flags = 0, int count = 0, int size = 0) {
    tagREQ_HEAD h{};
    h.nHeadLen = 76;
    h.nFuncId = id;
    h.nFlags = flags;
    for (int i = 0; i < 14; ++i) h.nUser[i] = 0x01010101 * (i + 1);
    h.nRecCount = count;
    h.nRecSize = size;
    return h;
}

// A request head as bytes, then `extra` bytes of 'x'.
inline std::vector<char> ReqBytes(const tagREQ_HEAD& h, std::size_t extra = 0) {
    std::vector<char> b(reinterpret_cast<const char*>(&h), reinterpret_cast<const char*>(&h) + 76);
    b.resize(76 + extra, 'x');
    return b;
}

// An answer head (word 0 = 96, id, flags, count and size in words 22 and 23),
// then `words` and `body` bytes of 'r'.
inline std::vector<char> AnsBytes(int id, int flags, int count, int size, const std::vector<std::int32_t>& words = {},
                                  std::size_t body = 0) {
    std::vector<char> b(96 + 4 * words.size(), 0);
    SetWord(b.data(), 0, 96);
    SetWord(b.data(), 4, id);
    SetWord(b.data(), 8, flags);
    SetWord(b.data(), 88, count);
    SetWord(b.data(), 92, size);
    for (std::size_t i = 0; i < words.size(); ++i) SetWord(b.data(), 96 + 4 * static_cast<int>(i), words[i]);
    b.resize(b.size() + body, 'r');
    return b;
}

// An answer's proc: the function id, then the count and record size of each array.
inline tagANS_Proc Proc(int id, const std::vector<std::pair<int, int>>& arrays) {
    tagANS_Proc p{};
    p.nFuncId = id;
    p.nArrayCount = static_cast<int>(arrays.size());
    for (std::size_t i = 0; i < arrays.size() && i < 5; ++i) {
        p.nRecCount[i] = arrays[i].first;
        p.nRecSize[i] = arrays[i].second;
    }
    return p;
}

// A received message in a heap block of exactly its size, so that the
// sanitizers catch any read past its end.
class Exact {
public:
    explicit Exact(const std::vector<char>& bytes) : size_(static_cast<int>(bytes.size())), p_(new char[bytes.size()]) {
        if (!bytes.empty()) std::memcpy(p_.get(), bytes.data(), bytes.size());
    }
    Exact(const char* p, int n) : Exact(std::vector<char>(p, p + n)) {}
    char* data() { return p_.get(); }
    int size() const { return size_; }

private:
    int size_;
    std::unique_ptr<char[]> p_;
};

// Result of a restore, released through ReleaseAnsData.
struct Restored {
    char* p = nullptr;
    int len = -1;
    int rc = -1;
    ~Restored() { CTrdCompData::ReleaseAnsData(p); }
    std::vector<char> bytes() const { return p ? std::vector<char>(p, p + len) : std::vector<char>(); }
};

inline void RestoreReq(Restored& r, char* in, int inLen, char flag = 0) {
    r.rc = CTrdCompData::RestoreReq2008(in, inLen, &r.p, r.len, flag);
}
inline void RestoreAns(Restored& r, char* in, int inLen, char flag = 0) {
    r.rc = CTrdCompData::RestoreAns2008(in, inLen, &r.p, r.len, flag);
}
inline void Restore(Restored& r, char* in, int inLen, bool request, char flag = 0) {
    if (request)
        RestoreReq(r, in, inLen, flag);
    else
        RestoreAns(r, in, inLen, flag);
}

}  // namespace testmsg
