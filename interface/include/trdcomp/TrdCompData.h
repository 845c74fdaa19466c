/* trdcomp: message codec for the order-entry front end and its server.
 *
 * CTrdCompData packs a request or an answer (a fixed head and arrays of
 * fixed-layout records) into its compact wire form and restores received
 * bytes into head and records. Two record codings exist, chosen per message
 * by bits 4..7 of the head's flag word: 0 selects the 2008 coding, 1..15 the
 * Fast coding. Function ids without a codec travel raw.
 *
 * Buffers: the pack functions write only into the caller's buffer; the
 * restore functions hand back a buffer from the global operator new that the
 * caller releases with ReleaseAnsData.
 *
 * This header, and everything it includes, must stay valid C++11. */
#ifndef TRDCOMP_TRDCOMPDATA_H
#define TRDCOMP_TRDCOMPDATA_H

#include "TrdCompExport.h"
#include "TrdCompVersion.h"

#pragma pack(push, 1)

/* Request head: 19 little-endian int32 words, 76 bytes. */
struct tagREQ_HEAD {
    int nHeadLen;      /* word 0: always 76 on the wire */
    int nFuncId;       /* word 1: function id, selects layout and codec */
    int nFlags;        /* word 2: bit 0 records coded, bit 1 several arrays,
                          bits 4..7 Fast version (0 = 2008 coding) */
    int nUser[14];     /* words 3..16: carried unchanged */
    int nRecCount;     /* word 17: number of records */
    int nRecSize;      /* word 18: size of one record in the caller's array */
};

/* Answer head: 24 little-endian int32 words, 96 bytes, as it stands at the
 * start of a packed answer and of a restored one. */
struct tagANS_HEAD {
    int nHeadLen;      /* always 96 */
    int nFuncId;
    int nFlags;        /* same bits as in the request head */
    char cReserved[8]; /* not written by the packer */
    char szShort[4];   /* short text, NUL padded, not terminated when full */
    char szLong[64];   /* long text, same rule */
    int nRecCount;     /* record count of the first array */
    int nRecSize;      /* record size of the first array */
};

/* Description of an answer handed to PackAns2008 (120 bytes). Array i (from 1)
 * lies in PackAns2008's argument a<i> and is nRecCount[i-1] * nRecSize[i-1]
 * bytes long. */
struct tagANS_Proc {
    int nFuncId;        /* copied into the answer head */
    int nReserved;      /* not read */
    char szShort[4];    /* copied to offset 20 of the head */
    char szLong[64];    /* copied to offset 24 of the head */
    int nArrayCount;    /* number of record arrays, 1 to 5 in use */
    int nRecCount[5];
    int nRecSize[5];
};

#pragma pack(pop)

/* Flag bits of head word 2. */
enum {
    TRDCOMP_FLAG_CODED = 0x01,      /* records are coded */
    TRDCOMP_FLAG_SECTIONS = 0x02,   /* several record arrays */
    TRDCOMP_FLAG_FAST_SHIFT = 4,    /* bits 4..7: Fast version */
    TRDCOMP_FLAG_FAST_MASK = 0xF0
};

enum {
    TRDCOMP_REQ_HEAD_LEN = 76,
    TRDCOMP_ANS_HEAD_LEN = 96
};

class TRDCOMP_API CTrdCompData {
public:
    CTrdCompData();
    CTrdCompData(const CTrdCompData& other);
    CTrdCompData& operator=(const CTrdCompData& other);
    virtual ~CTrdCompData();

    /* Packs a request: copies the head (word 0 forced to 76), then the coded
     * or raw records. Returns 0 for a null out or head, and on the raw path
     * (an id without a codec) for a negative dataLen or a null data with a
     * positive one; outLen is then untouched. Returns 1 otherwise, whatever
     * the codec did. The buffer must hold the head and the coded records:
     * no capacity is passed (trdcomp::RequestSizeBound gives a bound). */
    static int PackReq2008(char* out, int& outLen, tagREQ_HEAD* head, char* data, int dataLen,
                           char flag);
    /* Restores a request into a buffer from the global operator new (release
     * with ReleaseAnsData). Returns 1 done, 0 refused or failed. */
    static int RestoreReq2008(char* in, int inLen, char** out, int& outLen, char flag);
    /* Packs an answer. Always returns 0; outLen is 0 when the call was refused
     * and the message length otherwise. outSize is the capacity of out, read
     * as an unsigned number (-1: no limit beyond INT_MAX); nothing is written
     * past it, and the bytes between the message's end and outSize may be
     * used as scratch (their contents afterwards are unspecified). */
    static int PackAns2008(char* out, int outSize, int& outLen, tagANS_Proc* proc, char* a1,
                           char* a2, char* a3, char* a4, char* a5, char flag, int coding);
    /* Restores an answer; as RestoreReq2008. */
    static int RestoreAns2008(char* in, int inLen, char** out, int& outLen, char flag);
    /* Releases a buffer handed out by a restore; null is ignored. */
    static void ReleaseAnsData(char* p);

private:
    /* One codec member per function id, direction and coding, generated from
     * the record catalogue: PackReq2008_<id>, RestoreReq2008_<id>,
     * PackReq2011_Fast_<id>, RestoreReq2011_Fast_<id> and the same four for
     * answers (PackAns2008_<id>, ...). Each makes a classic call into the
     * record engine instance that the dispatchers' routes name as well. */
#include "TrdCompMembers.inc"
};

#endif
