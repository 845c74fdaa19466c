# Warnings on every target of ours; errors when TRDCOMP_WERROR is set (CI).
function(trdcomp_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wnon-virtual-dtor)
  if(TRDCOMP_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# AddressSanitizer and UndefinedBehaviorSanitizer (every check fatal).
function(trdcomp_sanitize target)
  if(TRDCOMP_SANITIZE)
    set(flags -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
      list(APPEND flags -fsanitize=float-cast-overflow)
    endif()
    target_compile_options(${target} PRIVATE ${flags})
    target_link_options(${target} PRIVATE ${flags})
  endif()
endfunction()
