# Installation and packaging: `cmake --install` puts the four libraries, the
# public headers (the framework's <zeb/...>, the plug-in's <zebtrk/...>) and
# the two programs in the usual GNU places, with a CMake package
# (find_package(zebtrk) -> zebtrk::zeb, zebtrk::zebfile, zebtrk::zebreduce,
# zebtrk::zebtrk) and a pkg-config file (zebtrk.pc).
#
# The targets keep their source-tree include paths, so the package's imported
# targets are written by hand (cmake/zebtrkConfig.cmake.in) instead of being
# exported; both the package and the .pc file locate the installed tree from
# their own position, so an installed tree can be moved.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

foreach(library zeb zebreduce zebfile zebtrk)
  if(TARGET ${library})
    install(TARGETS ${library} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endforeach()
# The framework libraries find each other beside themselves. (The plug-in's
# own search path, "$ORIGIN/.:$ORIGIN/../lib", is set where it is built.)
foreach(library zeb zebreduce zebfile)
  if(TARGET ${library})
    set_target_properties(${library} PROPERTIES INSTALL_RPATH "$ORIGIN")
  endif()
endforeach()

install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/include/zeb DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET zebtrk)
  install(FILES ${PROJECT_SOURCE_DIR}/trk/zebtrk.h ${PROJECT_SOURCE_DIR}/trk/CTrkInterface.h
                ${PROJECT_SOURCE_DIR}/trk/CTrkImagerFile.h
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zebtrk)
endif()

# The simulator; the zebtrk command installs itself (tools/zebtrk).
if(TARGET zebtrksvc)
  file(RELATIVE_PATH _zebtrk_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(zebtrksvc PROPERTIES INSTALL_RPATH "$ORIGIN/${_zebtrk_bin_to_lib}")
  install(TARGETS zebtrksvc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(_zebtrk_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zebtrk)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zebtrkConfig.cmake.in
  ${PROJECT_BINARY_DIR}/packaging/zebtrkConfig.cmake
  INSTALL_DESTINATION ${_zebtrk_config_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/zebtrkConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/zebtrkConfig.cmake
              ${PROJECT_BINARY_DIR}/packaging/zebtrkConfigVersion.cmake
        DESTINATION ${_zebtrk_config_dir})

# pkg-config: the prefix is found relative to the .pc file itself.
file(RELATIVE_PATH ZEBTRK_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZEBTRK_PC_TO_PREFIX "${ZEBTRK_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/zebtrk.pc.in ${PROJECT_BINARY_DIR}/packaging/zebtrk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/zebtrk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
