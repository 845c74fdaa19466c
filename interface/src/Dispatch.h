// The four dispatchers of the core: each reads the head, routes by function
// id and coding (Routing.h), and hands the message with the caller's call
// (common/Call.h) to the routed engine instance, or moves the bytes raw. The
// classic members (Classic.cpp) and the modern interface (Modern.cpp) are
// the two faces over them; neither reaches the engines any other way.
#pragma once

#include <cstdint>

#include "Call.h"
#include "trdcomp/TrdCompData.h"

namespace trdcomp::detail {

// The pack of a request: PackRequestMessage (PackRouting.h), in line.

// Packs an answer described by proc (arrays: its five record arrays) into out
// (call.capacity bytes). outLen is 0 on entry and the message length when it
// returns 1; 0 refused (call.reason, and call.needed when the capacity was
// short and the call measures). `coding`: bits 4..7 select the Fast coding.
int DispatchPackAnswer(Call& call, char* out, int& outLen, const tagANS_Proc& proc, char* const arrays[5], char flag,
                       int coding);

// Restores a received request or answer into the block the call says
// (a fresh allocation, or the caller's memory). 1 done (*out, outLen), 0
// refused (call.reason). Before the routing checks pass, *out and outLen are
// untouched; after them *out is null and outLen 0 until a block is handed out.
// The raw request path returns 1 when its allocation failed (*out null,
// call.reason out_of_memory): classic callers depend on it.
int DispatchRestoreRequest(Call& call, const char* in, int inLen, char** out, int& outLen, char flag);
int DispatchRestoreAnswer(Call& call, const char* in, int inLen, char** out, int& outLen, char flag);

}  // namespace trdcomp::detail
