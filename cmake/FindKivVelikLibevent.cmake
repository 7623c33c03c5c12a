# Finds libevent with its pthreads support and defines the imported target
# KivVelik::Libevent. The library links it, and the installed package ships
# this file, so a consumer of the package gets the same target with nothing
# of the search left in its scope but the cached paths below.
include(FindPackageHandleStandardArgs)

find_path(KivVelikLibevent_INCLUDE_DIR event2/event.h)
find_library(KivVelikLibevent_LIBRARY NAMES event)
find_library(KivVelikLibevent_PTHREADS_LIBRARY NAMES event_pthreads)
mark_as_advanced(KivVelikLibevent_INCLUDE_DIR KivVelikLibevent_LIBRARY
                 KivVelikLibevent_PTHREADS_LIBRARY)

find_package_handle_standard_args(KivVelikLibevent
  REQUIRED_VARS KivVelikLibevent_LIBRARY KivVelikLibevent_PTHREADS_LIBRARY
                KivVelikLibevent_INCLUDE_DIR)

if(KivVelikLibevent_FOUND AND NOT TARGET KivVelik::Libevent)
  add_library(KivVelik::Libevent INTERFACE IMPORTED)
  set_target_properties(KivVelik::Libevent PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${KivVelikLibevent_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${KivVelikLibevent_PTHREADS_LIBRARY};${KivVelikLibevent_LIBRARY}")
endif()
