# ZEPTFEM_SANITIZE takes a list for -fsanitize, for example "address,undefined" or "thread".
if(ZEPTFEM_SANITIZE)
  add_compile_options(-fsanitize=${ZEPTFEM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZEPTFEM_SANITIZE})
endif()
