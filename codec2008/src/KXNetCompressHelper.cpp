// Value coders of the 2008 record coding: the exported members of
// CKXNetCompressHelper. The format and its coders are defined in KXCoding.h.
#include "trdcomp/KXNetCompressHelper.h"

#include "KXCoding.h"

namespace kx = trdcomp::kx;

#if !defined(KXPFDK_UNMARKED)
// The mark by which libtrdcomp recognises this KXPfdk and runs the same
// coders compiled into its 2008 engine. A KXPfdk without it (another value
// format) is called through the members below.
extern "C" KXPFDK_API unsigned long long KXPfdk_trdcomp_value_format() { return kx::kFormatMark; }
#endif

int CKXNetCompressHelper::NCH_compress_int(char* out, int value) { return kx::CompressInt(out, value); }

int CKXNetCompressHelper::NCH_decompress_int(char* in, int& value) { return kx::DecompressInt(in, value); }

int CKXNetCompressHelper::NCH_compress_int64(char* out, long long value) { return kx::CompressInt64(out, value); }

int CKXNetCompressHelper::NCH_decompress_int64(char* in, long long& value) {
    return kx::DecompressInt64(in, value);
}

int CKXNetCompressHelper::NCH_compress_string(char* out, const char* text) { return kx::CompressString(out, text); }

int CKXNetCompressHelper::NCH_decompress_string(char* in, char* dest, int max) {
    return kx::DecompressString(in, dest, max);
}

int CKXNetCompressHelper::NCH_compress_binData(char* out, char* data, int len) {
    return kx::CompressBinData(out, data, len);
}

int CKXNetCompressHelper::NCH_decompress_binData(char* in, char* dest, int max, int& len) {
    return kx::DecompressBinData(in, dest, max, len);
}
