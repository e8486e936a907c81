# Installed files: the library (libhlsclient.so.1.0.0, SONAME libhlsclient.so.1),
# the reference demultiplexers, the two public headers in include/hlsclient/,
# hlsplay, a pkg-config file and a CMake package exporting hlsclient::hlsclient
# and hlsclient::hostdemux.
include(CMakePackageConfigHelpers)
set(HLS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/hlsclient)

install(TARGETS hlsclient EXPORT hlsclientTargets)
if(TARGET hostdemux)
  install(TARGETS hostdemux EXPORT hlsclientTargets)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/include/HLSClientLib.h ${PROJECT_SOURCE_DIR}/include/hls_host_demux.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hlsclient)
if(TARGET hlsplay)
  # Finds the installed libraries from wherever the prefix is moved to.
  file(RELATIVE_PATH HLS_BIN_TO_LIB /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
  set_target_properties(hlsplay PROPERTIES INSTALL_RPATH "$ORIGIN/${HLS_BIN_TO_LIB}")
  install(TARGETS hlsplay)
endif()

install(EXPORT hlsclientTargets NAMESPACE hlsclient:: DESTINATION ${HLS_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/hlsclientConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/hlsclientConfig.cmake INSTALL_DESTINATION ${HLS_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/hlsclientConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/hlsclientConfig.cmake ${PROJECT_BINARY_DIR}/hlsclientConfigVersion.cmake
        DESTINATION ${HLS_CMAKE_DIR})

# pkg-config: the prefix is the one given at install time (cmake --install
# --prefix), so the file is completed by the install step itself.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(HLS_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(HLS_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
set(HLS_PC_PREFIX "@CMAKE_INSTALL_PREFIX@")
configure_file(${CMAKE_CURRENT_LIST_DIR}/hlsclient.pc.in ${PROJECT_BINARY_DIR}/hlsclient.pc.in @ONLY)
install(CODE "configure_file(\"${PROJECT_BINARY_DIR}/hlsclient.pc.in\" \"${PROJECT_BINARY_DIR}/hlsclient.pc\" @ONLY)")
install(FILES ${PROJECT_BINARY_DIR}/hlsclient.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
