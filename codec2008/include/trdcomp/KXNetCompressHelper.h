/* CKXNetCompressHelper: the value coders of the 2008 record coding (library KXPfdk).
 *
 * Every function codes one value. Encoders return the number of bytes written
 * at `out`, decoders the number of bytes consumed at `in`. Every coded value is
 * self-delimiting, so a record is walked by adding each result to a cursor.
 * The byte format is documented in docs/wire-format.md:
 *   int, int64  zigzag LEB128 (7 bits a byte, least significant group first,
 *               0x80 = more bytes follow), at most 5 and 10 bytes;
 *   string      unsigned LEB128 length n, then the n text bytes;
 *   binData     unsigned LEB128 length n, then n bytes (trailing zero bytes of
 *               the block are not sent).
 * Decoders never write more than `max` bytes. This header must stay valid C++11. */
#ifndef TRDCOMP_KXNETCOMPRESSHELPER_H
#define TRDCOMP_KXNETCOMPRESSHELPER_H

#if defined(KXPFDK_STATIC)
#  define KXPFDK_API
#elif defined(_WIN32) && defined(KXPFDK_BUILDING)
#  define KXPFDK_API __declspec(dllexport)
#elif defined(_WIN32)
#  define KXPFDK_API __declspec(dllimport)
#else
#  define KXPFDK_API __attribute__((visibility("default")))
#endif

class KXPFDK_API CKXNetCompressHelper {
public:
    static int NCH_compress_int(char* out, int value);
    static int NCH_decompress_int(char* in, int& value);
    static int NCH_compress_int64(char* out, long long value);
    static int NCH_decompress_int64(char* in, long long& value);
    /* Codes `text` up to its first zero byte. */
    static int NCH_compress_string(char* out, const char* text);
    /* Writes at most `max` bytes at `dest`: the text, and a terminating zero
     * when the text is shorter than `max`. A text of `max` bytes or more
     * fills `dest` whole; the rest of a longer text is skipped. */
    static int NCH_decompress_string(char* in, char* dest, int max);
    /* Codes `len` bytes of `data` (trailing zero bytes are not sent). */
    static int NCH_compress_binData(char* out, char* data, int len);
    /* Writes min(block length, max) bytes at `dest` and sets `len` to the
     * block's length as sent. */
    static int NCH_decompress_binData(char* in, char* dest, int max, int& len);
};

#endif
