/* Symbol visibility for the trdcomp library.
 *
 * The library is built with hidden visibility; CTrdCompData is exported whole
 * (every member, the private static codec members included), so a host links
 * against it by name.
 * This header must stay valid C++11. */
#ifndef TRDCOMP_EXPORT_H
#define TRDCOMP_EXPORT_H

#if defined(_WIN32)
#  define TRDCOMP_DLL_EXPORT __declspec(dllexport)
#  define TRDCOMP_DLL_IMPORT __declspec(dllimport)
#else
#  define TRDCOMP_DLL_EXPORT __attribute__((visibility("default")))
#  define TRDCOMP_DLL_IMPORT __attribute__((visibility("default")))
#endif

#if defined(TRDCOMP_STATIC)
#  define TRDCOMP_API
#elif defined(TRDCOMP_BUILDING)
#  define TRDCOMP_API TRDCOMP_DLL_EXPORT
#else
#  define TRDCOMP_API TRDCOMP_DLL_IMPORT
#endif

#endif
