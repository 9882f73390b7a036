# Installation and the Debian package: kelpth and kelsim in bin/, the simulated
# controller libraries in a private folder that kelpth finds through its RUNPATH (so a
# maker's libraries, or any other implementation, still come first via LD_LIBRARY_PATH),
# the manual pages and the bash completions.
include(GNUInstallDirs)

set(KELPTH_SIM_LIBDIR "lib/kelpth/sim")

# The installed kelpth is linked with the installed RUNPATH from the start, so that
# installing only copies it. (Editing the build folder's kelpth at install time would
# need room in its RUNPATH, which CMake makes with empty entries, and an empty entry
# makes the loader look for every library, libc included, in the current folder.)
add_kelpth_program(kelpth_installed)
set_target_properties(kelpth_installed PROPERTIES OUTPUT_NAME kelpth
                      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/installed
                      BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "\$ORIGIN/../${KELPTH_SIM_LIBDIR}")

install(TARGETS kelpth_installed kelsim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS kelctl kelpth_lib kelsim_lib LIBRARY DESTINATION ${KELPTH_SIM_LIBDIR} NAMELINK_SKIP)

# Manual pages, compressed as Debian wants them.
find_program(GZIP_PROGRAM gzip REQUIRED)
set(KELPTH_MAN_PAGES kelpth.1 kelsim.1)
set(KELPTH_MAN_GZ)
foreach(page ${KELPTH_MAN_PAGES})
  set(source ${CMAKE_SOURCE_DIR}/doc/${page})
  set(packed ${CMAKE_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${packed}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND ${GZIP_PROGRAM} -9nc ${source} > ${packed}
    DEPENDS ${source} VERBATIM)
  list(APPEND KELPTH_MAN_GZ ${packed})
endforeach()
add_custom_target(man_pages ALL DEPENDS ${KELPTH_MAN_GZ})
install(FILES ${KELPTH_MAN_GZ} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

install(FILES ${CMAKE_SOURCE_DIR}/completion/kelpth ${CMAKE_SOURCE_DIR}/completion/kelsim
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The .deb: kelpth_<version>_amd64.deb, its dependencies found by dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelpth)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kelpth maintainers <kelpth@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "maintenance and test tool for RAID controllers and their drives")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Reads and writes single sectors and stripes, sends raw SCSI and ATA commands,\n\
changes a drive's capacity and more, through the controller libraries. Ships a\n\
simulated controller farm (kelsim) that implements those libraries.")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${KELPTH_SIM_LIBDIR})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
