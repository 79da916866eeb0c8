# Like target_include_directories, and makes the headers below the directories part of the target. With
# CMAKE_VERIFY_INTERFACE_HEADER_SETS, the target all_verify_interface_header_sets compiles each header alone.
function(zeptfem_headers target scope)
  list(TRANSFORM ARGN APPEND /*.h OUTPUT_VARIABLE patterns)
  file(GLOB_RECURSE headers CONFIGURE_DEPENDS ${patterns})
  target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS ${ARGN} FILES ${headers})
endfunction()
