# Warnings that every target of this project is built with; errors where ZEPTFEM_WERROR is set.
add_library(zeptfem_warnings INTERFACE)
target_compile_options(zeptfem_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
  $<$<BOOL:${ZEPTFEM_WERROR}>:-Werror>)
