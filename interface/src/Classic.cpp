// CTrdCompData: the classic face. Each member makes a classic call (no
// limits, not strict, a fresh block for a restore) into the core's
// dispatchers and keeps the return conventions callers rely on: requests pack
// to 1, answers pack to 0, and the two raw restores differ on allocation
// failure.
#include <climits>
#include <cstdint>

#include "Dispatch.h"
#include "PackRouting.h"
#include "RestoreRouting.h"
#include "trdcomp/TrdCompData.h"

using trdcomp::detail::Call;
using trdcomp::detail::ClassicCall;

CTrdCompData::CTrdCompData() = default;
CTrdCompData::CTrdCompData(const CTrdCompData&) = default;
CTrdCompData& CTrdCompData::operator=(const CTrdCompData&) { return *this; }
CTrdCompData::~CTrdCompData() = default;

void CTrdCompData::ReleaseAnsData(char* p) {
    if (p != nullptr) ::operator delete(p);
}

int CTrdCompData::PackReq2008(char* out, int& outLen, tagREQ_HEAD* head, char* data, int dataLen, char flag) {
    if (out == nullptr || head == nullptr) return 0;
    Call call = ClassicCall();
    // The codec's own result is not looked at; only a refusal before a byte
    // was written gives 0.
    // The head may lie inside out: its flags are read before it is moved.
    const int flags = head->nFlags;
    return trdcomp::detail::PackRequestMessage(call, out, outLen, *head, flags, data, dataLen, flag) < 0 ? 0 : 1;
}

int CTrdCompData::RestoreReq2008(char* in, int inLen, char** out, int& outLen, char flag) {
    if (out == nullptr) return 0;
    Call call = ClassicCall();
    return trdcomp::detail::RestoreMessage<true>(call, in, inLen, out, outLen, flag);
}

int CTrdCompData::PackAns2008(char* out, int outSize, int& outLen, tagANS_Proc* proc, char* a1, char* a2, char* a3,
                              char* a4, char* a5, char flag, int coding) {
    outLen = 0;
    if (out == nullptr || proc == nullptr) return 0;
    // outSize is an unsigned capacity: -1 is the largest. The message's
    // length is an int, so no more than INT_MAX of it is ever used.
    const std::int64_t cap = static_cast<unsigned>(outSize) < static_cast<unsigned>(INT_MAX)
                                 ? static_cast<std::int64_t>(static_cast<unsigned>(outSize))
                                 : std::int64_t{INT_MAX};
    if (cap < TRDCOMP_ANS_HEAD_LEN) return 0;
    Call call = ClassicCall(cap);
    char* const arrays[5] = {a1, a2, a3, a4, a5};
    trdcomp::detail::DispatchPackAnswer(call, out, outLen, *proc, arrays, flag, coding);
    return 0;
}

int CTrdCompData::RestoreAns2008(char* in, int inLen, char** out, int& outLen, char flag) {
    if (out == nullptr) return 0;
    Call call = ClassicCall();
    return trdcomp::detail::RestoreMessage<false>(call, in, inLen, out, outLen, flag);
}
