// A C++11 caller of the installed library: packs a raw request and restores it.
#include "TrdCompData.h"
#include "KXNetCompressHelper.h"

#include <cstdio>
#include <cstring>

int main() {
    tagREQ_HEAD head;
    std::memset(&head, 0, sizeof head);
    head.nFuncId = 1022;
    char data[4] = {'t', 'e', 's', 't'};
    char wire[128];
    int len = 0;
    if (CTrdCompData::PackReq2008(wire, len, &head, data, 4, 0) != 1 || len != 80) return 1;
    char* out = 0;
    int outLen = 0;
    if (CTrdCompData::RestoreReq2008(wire, len, &out, outLen, 0) != 1 || outLen != 80) return 2;
    const bool same = std::memcmp(out + 76, "test", 4) == 0;
    CTrdCompData::ReleaseAnsData(out);
    char value[8];
    int back = 0;
    const int n = CKXNetCompressHelper::NCH_compress_int(value, -7);
    if (CKXNetCompressHelper::NCH_decompress_int(value, back) != n || back != -7) return 3;
    std::printf("consumer ok\n");
    return same ? 0 : 4;
}
