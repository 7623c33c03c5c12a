# Finds http_parser (Debian's libhttp-parser-dev) and defines the imported
# target KivVelik::HttpParser. The metrics endpoint reads HTTP requests with
# it: a parser driven from the library's own reads on its own loop, with no
# threads or sockets of its own. The shared library links it privately, so
# its consumers need only the runtime library.
include(FindPackageHandleStandardArgs)

find_path(KivVelikHttpParser_INCLUDE_DIR http_parser.h)
find_library(KivVelikHttpParser_LIBRARY NAMES http_parser)
mark_as_advanced(KivVelikHttpParser_INCLUDE_DIR KivVelikHttpParser_LIBRARY)

find_package_handle_standard_args(KivVelikHttpParser
  REQUIRED_VARS KivVelikHttpParser_LIBRARY KivVelikHttpParser_INCLUDE_DIR)

if(KivVelikHttpParser_FOUND AND NOT TARGET KivVelik::HttpParser)
  add_library(KivVelik::HttpParser INTERFACE IMPORTED)
  set_target_properties(KivVelik::HttpParser PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${KivVelikHttpParser_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${KivVelikHttpParser_LIBRARY}")
endif()
