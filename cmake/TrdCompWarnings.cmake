# Warnings on every target of ours; errors when TRDCOMP_WERROR is set (CI).
function(trdcomp_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wnon-virtual-dtor)
  if(TRDCOMP_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Sanitizers, every check fatal: TRDCOMP_SANITIZE=address gives
# AddressSanitizer (with LeakSanitizer) and UndefinedBehaviorSanitizer,
# TRDCOMP_SANITIZE=thread gives ThreadSanitizer.
function(trdcomp_sanitize target)
  if(TRDCOMP_SANITIZE STREQUAL "address")
    set(flags -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
      list(APPEND flags -fsanitize=float-cast-overflow)
    endif()
  elseif(TRDCOMP_SANITIZE STREQUAL "thread")
    set(flags -fsanitize=thread -fno-omit-frame-pointer)
  elseif(TRDCOMP_SANITIZE)
    message(FATAL_ERROR "TRDCOMP_SANITIZE is address, thread or empty, not '${TRDCOMP_SANITIZE}'")
  endif()
  if(flags AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC's object-size warnings misread the sanitizers' instrumented code at
    # -O1 (bounds "between 2^63 and 2^64" on copies of a few bytes); the
    # sanitizers themselves check every access at run time.
    list(APPEND flags -Wno-stringop-overflow -Wno-stringop-overread -Wno-array-bounds)
  endif()
  if(flags)
    target_compile_options(${target} PRIVATE ${flags})
    target_link_options(${target} PRIVATE ${flags})
  endif()
endfunction()
