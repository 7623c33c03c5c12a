# Gives every source file its own assertion source name: the base name with
# the extension's first letter upper-cased and appended (Errno.cpp -> ErrnoCpp),
# so messages name the file that asserted.
#
# The scheduling core and its statistics, reports and endpoint (src/scheduler,
# src/stats, src/report, src/endpoint) are one source in their messages:
# tasks, run queues, schedulers, the root and what reports on them all report
# as TaskSchedulerCpp, so a message reads the same whichever file raised it.
function(velik_source_names)
  foreach(src IN LISTS ARGN)
    get_filename_component(stem "${src}" NAME_WE)
    get_filename_component(ext "${src}" LAST_EXT)
    get_filename_component(dir "${src}" DIRECTORY)
    string(SUBSTRING "${ext}" 1 1 first)
    string(SUBSTRING "${ext}" 2 -1 rest)
    string(TOUPPER "${first}" first)
    set(name "${stem}${first}${rest}")
    if(dir MATCHES "/src/(scheduler|stats|report|endpoint)$")
      set(name "TaskSchedulerCpp")
    endif()
    set_property(SOURCE "${src}" APPEND PROPERTY COMPILE_DEFINITIONS
                 "VELIK_SOURCE_NAME=\"${name}\"")
  endforeach()
endfunction()
