// Recognises, once while libtrdcomp loads, whether the process's KXPfdk is
// ours. Ours exports KXPfdk_trdcomp_value_format(), which returns the format
// mark; the reference to it is weak, so a KXPfdk without it (another value
// format) leaves it null. The mark alone is not enough: a KXPfdk preloaded
// in front of ours takes over the eight coders while the mark still comes
// from ours. So the mark's object must also be the one every coder the
// engine would call lives in.
#include <dlfcn.h>

#include <cstring>

#include "ValueCoders.h"
#include "trdcomp/trdcomp.hpp"

extern "C" __attribute__((weak)) unsigned long long KXPfdk_trdcomp_value_format();

namespace trdcomp::codec2008 {
namespace {

template <class Fn>
const void* AddressOf(Fn* fn) {
    const void* p;
    static_assert(sizeof fn == sizeof p);
    std::memcpy(&p, &fn, sizeof p);
    return p;
}

// The loaded object (shared library or executable) that holds an address.
const void* ObjectOf(const void* p) {
    Dl_info info;
    return p != nullptr && dladdr(p, &info) != 0 ? info.dli_fbase : nullptr;
}

bool Recognise() noexcept {
    auto* const mark = &KXPfdk_trdcomp_value_format;
    if (mark == nullptr || mark() != kx::kFormatMark) return false;
    const void* const home = ObjectOf(AddressOf(mark));
    if (home == nullptr) return false;
    using N = CKXNetCompressHelper;
    const void* const coders[] = {
        AddressOf(&N::NCH_compress_int),     AddressOf(&N::NCH_decompress_int),
        AddressOf(&N::NCH_compress_int64),   AddressOf(&N::NCH_decompress_int64),
        AddressOf(&N::NCH_compress_string),  AddressOf(&N::NCH_decompress_string),
        AddressOf(&N::NCH_compress_binData), AddressOf(&N::NCH_decompress_binData),
    };
    for (const void* c : coders)
        if (ObjectOf(c) != home) return false;
    return true;
}

}  // namespace

bool gBuiltInCoders = Recognise();

}  // namespace trdcomp::codec2008

bool trdcomp::BuiltInValueCoders() noexcept { return codec2008::gBuiltInCoders; }
