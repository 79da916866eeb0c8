# ZEPTFEM_SANITIZE takes a list for -fsanitize, for example "address,undefined" or "thread".
if(ZEPTFEM_SANITIZE)
  # These override the build type's levels: sanitizer builds favour build time over speed, and need lines only.
  add_compile_options(-O1 -g1 -fsanitize=${ZEPTFEM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  # With the checks compiled in, GCC sees uninitialised members in the standard library's regular expressions.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  add_link_options(-fsanitize=${ZEPTFEM_SANITIZE})
endif()
if(ZEPTFEM_FUZZ)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fsanitize=fuzzer-no-link>)
endif()
