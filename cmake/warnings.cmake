# Warnings that every target of this project is built with; errors where ZEPTFEM_WERROR is set.
# -Wrestrict is off: GCC 12 reports false positives for std::string concatenation at -O3 (GCC bug 105651).
add_library(zeptfem_warnings INTERFACE)
target_compile_options(zeptfem_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wcast-align -Wnon-virtual-dtor -Woverloaded-virtual
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<BOOL:${ZEPTFEM_WERROR}>:-Werror>)
