# Warnings that every target of this project is built with; errors where ZEPTFEM_WERROR is set.
# GCC 12 takes an appended std::string for an overlapping copy at -O3 (its bug 105651), so that warning stays off.
add_library(zeptfem_warnings INTERFACE)
target_compile_options(zeptfem_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wcast-align -Wnon-virtual-dtor -Woverloaded-virtual
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<BOOL:${ZEPTFEM_WERROR}>:-Werror>)
