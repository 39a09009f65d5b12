# Installation rules: headers, library, CLI, CMake package, pkg-config file.
# The installed tree is relocatable: the package config and the .pc file find
# their prefix from where they lie, so `cmake --install --prefix` anywhere works.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(WOODSHED_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/woodshed
    CACHE STRING "Where the CMake package files are installed, relative to the prefix")
mark_as_advanced(WOODSHED_INSTALL_CMAKEDIR)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/woodshed
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
  FILES_MATCHING PATTERN "*.h")

# On Windows the DLL goes to bin (next to the programs that load it) and the
# import library to lib.
install(TARGETS woodshed EXPORT woodshedTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)

if(MINGW)
  install(FILES ${PROJECT_BINARY_DIR}/lib/woodshed.def DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development)
endif()

if(TARGET woodshed_cli)
  if(NOT WIN32 AND NOT DEFINED CMAKE_INSTALL_RPATH)
    # The installed program finds the library wherever the tree is moved to.
    file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(woodshed_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  endif()
  install(TARGETS woodshed_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)
endif()

# Threads is linked privately into a shared library, so the package needs no
# find_dependency: consumers link only the library itself.
install(EXPORT woodshedTargets NAMESPACE woodshed::
  DESTINATION ${WOODSHED_INSTALL_CMAKEDIR} COMPONENT Development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/woodshedConfig.cmake.in
  ${PROJECT_BINARY_DIR}/woodshedConfig.cmake
  INSTALL_DESTINATION ${WOODSHED_INSTALL_CMAKEDIR})
# The major version is the soname's: anything within it is binary compatible.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/woodshedConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/woodshedConfig.cmake ${PROJECT_BINARY_DIR}/woodshedConfigVersion.cmake
  DESTINATION ${WOODSHED_INSTALL_CMAKEDIR} COMPONENT Development)

# pkg-config: the prefix is derived from the .pc file's own directory unless
# the library directory was given as an absolute path.
set(WOODSHED_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE ${WOODSHED_PC_DIR})
  set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
  file(RELATIVE_PATH pc_to_prefix /prefix/${WOODSHED_PC_DIR} /prefix)
  string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
  set(pc_prefix "\${pcfiledir}/${pc_to_prefix}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE ${CMAKE_INSTALL_${dir}})
    set(pc_${dir} ${CMAKE_INSTALL_${dir}})
  else()
    set(pc_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/woodshed.pc.in ${PROJECT_BINARY_DIR}/woodshed.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/woodshed.pc DESTINATION ${WOODSHED_PC_DIR} COMPONENT Development)
