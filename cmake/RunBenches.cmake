# Runs each benchmark program in turn; used by `make bench`.
separate_arguments(benches UNIX_COMMAND "${BENCHES}")
foreach(b IN LISTS benches)
  message(STATUS "== ${b}")
  execute_process(COMMAND ${DIR}/${b} --benchmark_counters_tabular=true RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${b} failed: ${rc}")
  endif()
endforeach()
