# The one counting allocator (CountingAllocator.h), for the test and benchmark
# programs that link it.
if(NOT TARGET velik_counting_allocator)
  add_library(velik_counting_allocator OBJECT ${CMAKE_CURRENT_LIST_DIR}/CountingAllocator.cpp)
  target_include_directories(velik_counting_allocator INTERFACE ${CMAKE_CURRENT_LIST_DIR})
endif()
