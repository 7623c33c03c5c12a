# Installs the libraries, the headers, a CMake package (find_package(KivVelik)
# gives KivVelik::KivVelik) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS Kiv KivVelik EXPORT KivVelikTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/Velik DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY kiv/include/Kiv DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(VELIK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KivVelik)
install(EXPORT KivVelikTargets NAMESPACE KivVelik:: DESTINATION ${VELIK_CMAKE_DIR})
configure_package_config_file(cmake/KivVelikConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/KivVelikConfig.cmake
  INSTALL_DESTINATION ${VELIK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/KivVelikConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KivVelikConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/KivVelikConfigVersion.cmake
        DESTINATION ${VELIK_CMAKE_DIR})

# Relocatable: the prefix is found from the .pc file's own place, so a
# package installed with `cmake --install --prefix` elsewhere still works.
file(RELATIVE_PATH VELIK_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(cmake/KivVelik.pc.in ${CMAKE_CURRENT_BINARY_DIR}/KivVelik.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KivVelik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
