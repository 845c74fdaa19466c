// The length of a message from its first bytes, for readers that cut a byte
// stream into messages.
#pragma once

#include <cstddef>
#include <optional>

namespace trdcomp_python {

// The length of the message that starts at `prefix`, read from its framing
// the way the restores walk it: the head, then for a coded message the
// section table (2008 coding, several arrays) or the record counts (Fast
// coding), then every record's length prefix (u32 in the 2008 coding, u16 in
// the Fast coding) and its bytes. nullopt when the bytes do not tell it yet
// (more are needed) or cannot tell it at all: no request or answer head, a
// message that travels raw (its length is in no head word), an id whose
// restore keeps nothing, or framing the restores would refuse. Bytes behind
// the message are not read.
std::optional<std::size_t> FramedMessageLength(const unsigned char* prefix, std::size_t size);

}  // namespace trdcomp_python
