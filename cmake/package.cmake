# The manual pages and, with CPack, the Debian package: cmake --build --preset release --target package
# With ZEPTFEM_STATIC, what scripts/cross puts into a tarball for any root file system is installed instead.
set(pages ${PROJECT_SOURCE_DIR}/docs/zeptfem.8 ${PROJECT_SOURCE_DIR}/docs/zepctl.1)
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in ${PROJECT_BINARY_DIR}/packaging/changelog @ONLY)
foreach(page ${pages} ${PROJECT_BINARY_DIR}/packaging/changelog)
  get_filename_component(name ${page} NAME)
  set(packed ${PROJECT_BINARY_DIR}/packaging/${name}.gz)
  add_custom_command(OUTPUT ${packed} COMMAND gzip -9nc ${page} > ${packed} DEPENDS ${page} VERBATIM)
  list(APPEND packed_pages ${packed})
endforeach()
add_custom_target(packed_pages ALL DEPENDS ${packed_pages})
install(FILES ${PROJECT_BINARY_DIR}/packaging/zeptfem.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${PROJECT_BINARY_DIR}/packaging/zepctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
foreach(program zeptfem zepctl)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/completion.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program})
endforeach()
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/packaging/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
if(ZEPTFEM_STATIC)
  # The static programs contain code of these packages.
  foreach(package libc6-dev gcc-12-base libspdlog-dev libfmt-dev libcxxopts-dev libcli11-dev nlohmann-json3-dev)
    install(FILES ${CMAKE_SYSROOT}/usr/share/doc/${package}/copyright
      DESTINATION ${CMAKE_INSTALL_DOCDIR}/licences RENAME ${package})
  endforeach()
  foreach(licence LGPL-2.1 GPL-2 GPL-3)
    install(FILES /usr/share/common-licenses/${licence} DESTINATION ${CMAKE_INSTALL_DOCDIR}/licences)
  endforeach()
  execute_process(COMMAND zcat ${CMAKE_SYSROOT}/usr/share/doc/libc6-dev/changelog.Debian.gz
    COMMAND sed "s/^glibc (\\(.*\\)) .*/\\1/; q" OUTPUT_VARIABLE glibc_version OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT glibc_version)
    message(FATAL_ERROR "The version of the C library in ${CMAKE_SYSROOT} is unknown")
  endif()
  configure_file(packaging/licences.in packaging/README @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/README DESTINATION ${CMAKE_INSTALL_DOCDIR}/licences)
else()
  # systemd and udev look in lib, whatever the name of the directory for libraries is.
  install(FILES packaging/zeptfem.service DESTINATION lib/systemd/system)
  install(FILES packaging/sysusers.conf DESTINATION lib/sysusers.d RENAME zeptfem.conf)
  install(FILES packaging/60-zeptfem.rules DESTINATION lib/udev/rules.d)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE "")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps searches the build machine's libraries; point it at the target's libraries and their shlibs file.
  file(WRITE ${PROJECT_BINARY_DIR}/packaging/dpkg-shlibdeps
    "#!/bin/sh\nexec dpkg-shlibdeps -l${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} "
    "-l${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE} -L${CMAKE_SYSROOT}/shlibs \"$@\"\n")
  file(CHMOD ${PROJECT_BINARY_DIR}/packaging/dpkg-shlibdeps PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/packaging/cpack.cmake)
  file(WRITE ${CPACK_PROJECT_CONFIG_FILE}
    "set(SHLIBDEPS_EXECUTABLE ${PROJECT_BINARY_DIR}/packaging/dpkg-shlibdeps)\n")
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/postinst
  ${PROJECT_SOURCE_DIR}/packaging/prerm ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "bubblewrap, gnuplot-nox | gnuplot")  # for zepctl run and zepctl records plot
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The zeptfem developers <zeptfem@packages.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "stand-in for an FPGA that moves transport streams")
set(CPACK_PACKAGE_DESCRIPTION
  "zeptfem emulates the path from an FPGA that moves MPEG-2 transport streams to
the CPU of its board. It watches the tables of the FPGA, plays a file for each
input and writes the packets that are routed to the CPU.
zepctl creates stand-in devices, shows and changes the tables, and checks the
records.")
include(CPack)
