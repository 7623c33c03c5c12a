# Gives every source file its own assertion source name: the base name with
# the extension's first letter upper-cased and appended (Errno.cpp -> ErrnoCpp),
# so messages name the file that asserted.
function(velik_source_names)
  foreach(src IN LISTS ARGN)
    get_filename_component(stem "${src}" NAME_WE)
    get_filename_component(ext "${src}" LAST_EXT)
    string(SUBSTRING "${ext}" 1 1 first)
    string(SUBSTRING "${ext}" 2 -1 rest)
    string(TOUPPER "${first}" first)
    set_property(SOURCE "${src}" APPEND PROPERTY COMPILE_DEFINITIONS
                 "VELIK_SOURCE_NAME=\"${stem}${first}${rest}\"")
  endforeach()
endfunction()
