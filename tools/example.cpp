// A small walk through the classic interface: pack a request and an answer,
// restore both, and print what travelled.
#include <trdcomp/TrdCompData.h>

#include <cstdio>
#include <cstring>

namespace {

void Dump(const char* what, const char* p, int n) {
    std::printf("%-28s %4d bytes:", what, n);
    for (int i = 0; i < n && i < 24; ++i) std::printf(" %02x", static_cast<unsigned char>(p[i]));
    std::printf("%s\n", n > 24 ? " ..." : "");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::printf("usage: %s\npacks and restores a sample request and answer through CTrdCompData\n", argv[0]);
        return 0;
    }
    int failures = 0;

    // A request of function id 1022 (no codec: it travels raw).
    tagREQ_HEAD head{};
    head.nFuncId = 1022;
    head.nRecCount = 2;
    head.nRecSize = 5;
    char records[10] = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 'I', 'J'};
    char wire[256];
    int wireLen = -1;
    const int packed = CTrdCompData::PackReq2008(wire, wireLen, &head, records, sizeof records, 0);
    std::printf("PackReq2008(id 1022) returned %d\n", packed);
    Dump("request on the wire", wire, wireLen);

    char* restored = nullptr;
    int restoredLen = 0;
    const int ok = CTrdCompData::RestoreReq2008(wire, wireLen, &restored, restoredLen, 0);
    std::printf("RestoreReq2008 returned %d\n", ok);
    Dump("restored request", restored, restoredLen);
    if (ok != 1 || restoredLen != wireLen || std::memcmp(restored, wire, static_cast<size_t>(wireLen)) != 0) ++failures;
    CTrdCompData::ReleaseAnsData(restored);

    // An answer of function id 1022 with two record arrays (raw, 2008 coding).
    tagANS_Proc proc{};
    proc.nFuncId = 1022;
    std::memcpy(proc.szShort, "OK", 2);
    std::memcpy(proc.szLong, "two arrays", 10);
    proc.nArrayCount = 2;
    proc.nRecCount[0] = 2;
    proc.nRecSize[0] = 8;
    proc.nRecCount[1] = 1;
    proc.nRecSize[1] = 4;
    char a1[16] = "first--second--";
    char a2[4] = {1, 2, 3, 4};
    char answer[512] = {};
    int answerLen = -1;
    const int packRc = CTrdCompData::PackAns2008(answer, sizeof answer, answerLen, &proc, a1, a2, nullptr,
                                                 nullptr, nullptr, 0, 0);
    std::printf("PackAns2008 returned %d, outLen %d\n", packRc, answerLen);
    Dump("answer on the wire", answer, answerLen);
    const int ansOk = CTrdCompData::RestoreAns2008(answer, answerLen, &restored, restoredLen, 0);
    std::printf("RestoreAns2008 returned %d\n", ansOk);
    Dump("restored answer", restored, restoredLen);
    if (ansOk != 1 || restoredLen != answerLen || std::memcmp(restored, answer, static_cast<size_t>(answerLen)) != 0)
        ++failures;
    CTrdCompData::ReleaseAnsData(restored);

    std::printf("%s\n", failures == 0 ? "round trips ok" : "round trip MISMATCH");
    return failures == 0 ? 0 : 1;
}
