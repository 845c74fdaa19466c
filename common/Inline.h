// Forced inlining of the per-field code. Optimised builds force it, so that
// each layout's record coder is one straight run of field code; sanitizer and
// fuzzing builds (-O1, TRDCOMP_NO_FORCED_INLINE) leave the choice to the
// compiler, which keeps their build of the whole catalogue short.
#pragma once

#if defined(TRDCOMP_NO_FORCED_INLINE)
#define TRDCOMP_FORCE_INLINE inline
#define TRDCOMP_LAMBDA_INLINE
#else
#define TRDCOMP_FORCE_INLINE [[gnu::always_inline]] inline
#define TRDCOMP_LAMBDA_INLINE __attribute__((always_inline))
#endif
