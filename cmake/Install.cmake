# The installed tree: headers, library, the CMake package "Quillmere" and the pkg-config file.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Quillmere)

install(TARGETS quillmere EXPORT QuillmereTargets
        FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT QuillmereTargets NAMESPACE Quillmere:: DESTINATION ${package_dir})

configure_package_config_file(cmake/QuillmereConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/QuillmereConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/QuillmereConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/QuillmereConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/QuillmereConfigVersion.cmake
  cmake/Findcctz.cmake
  DESTINATION ${package_dir})

# A static archive pulls its dependencies into every link line; the shared library carries them.
if(BUILD_SHARED_LIBS)
  set(quillmere_pc_requires "Requires.private")
else()
  set(quillmere_pc_requires "Requires")
  set(quillmere_pc_static_libs " -lcctz")
endif()
if(ECAL_FOUND)
  set(quillmere_pc_evolution " libecal-2.0")
endif()
# The way from the .pc file's folder to the prefix, so that an installed tree may stand anywhere.
file(RELATIVE_PATH quillmere_pc_up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/quillmere.pc.in ${CMAKE_CURRENT_BINARY_DIR}/quillmere.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/quillmere.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
