// Fuzz target: restoring received bytes (requests with RestoreReq2008,
// answers with RestoreAns2008, chosen at build time). The first input byte is
// the caller's flag; the rest is the message, in a heap block of exactly its
// size so that AddressSanitizer sees any read past it. The same message is
// restored into a block of exactly the size RestoredBytes asks for, which
// must give the classic bytes, and its length is looked for in its bytes.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "trdcomp/TrdCompData.h"
#include "trdcomp/trdcomp.hpp"

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
#if defined(TRDCOMP_FUZZ_ANSWERS)
    constexpr bool kRequest = false;
#else
    constexpr bool kRequest = true;
#endif
    const std::size_t need = trdcomp::detail::RestoredBytes(kRequest, msg.get(), n, flag);
    std::unique_ptr<char[]> block(new char[need ? need : 1]);
    std::size_t len = 0;
    const int into = trdcomp::detail::RestoreIntoBlock(kRequest, block.get(), need, msg.get(), n, flag, &len);
    if ((into == 1) != (rc == 1)) __builtin_trap();
    if (rc == 1 && (len != static_cast<std::size_t>(outLen > 0 && out ? outLen : 0) ||
                    (len > 0 && std::memcmp(block.get(), out, len) != 0)))
        __builtin_trap();
    CTrdCompData::ReleaseAnsData(out);
    static_cast<void>(trdcomp::MessageLength(msg.get(), n));
    return 0;
}
