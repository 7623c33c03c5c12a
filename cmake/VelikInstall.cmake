# Installs the libraries, the headers, a CMake package (find_package(KivVelik)
# gives KivVelik::KivVelik) and a pkg-config file.
include(CMakePackageConfigHelpers)

# Installed files find their libraries relative to themselves, so a prefix
# works wherever it is, with no LD_LIBRARY_PATH: the libraries look beside
# themselves (libKivVelik needs libKiv, and a RUNPATH is not inherited by
# what a program loads), the viewer looks in the prefix's library folder.
file(RELATIVE_PATH VELIK_BIN_TO_LIB "/p/${CMAKE_INSTALL_BINDIR}" "/p/${CMAKE_INSTALL_LIBDIR}")
set_target_properties(Kiv KivVelik PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(velik-top PROPERTIES INSTALL_RPATH "$ORIGIN/${VELIK_BIN_TO_LIB}")

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
              cmake/FindKivVelikLibevent.cmake
        DESTINATION ${VELIK_CMAKE_DIR})

# Relocatable: the prefix is found from the .pc file's own place, so a
# package installed with `cmake --install --prefix` elsewhere still works.
file(RELATIVE_PATH VELIK_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(cmake/KivVelik.pc.in ${CMAKE_CURRENT_BINARY_DIR}/KivVelik.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KivVelik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
