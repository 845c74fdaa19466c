// Fuzz target: restoring received bytes (requests with RestoreReq2008,
// answers with RestoreAns2008, chosen at build time). The first input byte is
// the caller's flag; the rest is the message, in a heap block of exactly its
// size so that AddressSanitizer sees any read past it.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "trdcomp/TrdCompData.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const char flag = static_cast<char>(data[0]);
    const std::size_t n = size - 1;
    std::unique_ptr<char[]> msg(new char[n ? n : 1]);
    if (n) std::memcpy(msg.get(), data + 1, n);
    char* out = nullptr;
    int outLen = 0;
#if defined(TRDCOMP_FUZZ_ANSWERS)
    const int rc = CTrdCompData::RestoreAns2008(msg.get(), static_cast<int>(n), &out, outLen, flag);
#else
    const int rc = CTrdCompData::RestoreReq2008(msg.get(), static_cast<int>(n), &out, outLen, flag);
#endif
    // A restored buffer holds outLen readable bytes.
    if (rc == 1 && out != nullptr && outLen > 0) {
        volatile char sink = 0;
        for (int i = 0; i < outLen; i += 64) sink = static_cast<char>(sink ^ out[i]);
        sink = static_cast<char>(sink ^ out[outLen - 1]);
    }
    CTrdCompData::ReleaseAnsData(out);
    return 0;
}
