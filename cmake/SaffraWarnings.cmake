# Warnings and sanitizers shared by every target of the project.
if(SAFFRA_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(SAFFRA_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(SAFFRA_SANITIZE)
  message(FATAL_ERROR "SAFFRA_SANITIZE must be empty, 'address' or 'thread'")
endif()

function(saffra_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  # GCC's flow analysis reports false "maybe uninitialized" warnings inside the standard library
  # when sanitizer instrumentation is on; they are real warnings only in the plain build.
  if(SAFFRA_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
  endif()
  if(SAFFRA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
