# Warnings and sanitizers applied to every target of the project.
add_compile_options(-Wall -Wextra)

if(ZD_SANITIZE STREQUAL "asan")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(ZD_SANITIZE STREQUAL "tsan")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT ZD_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ZD_SANITIZE must be '', 'asan' or 'tsan', not '${ZD_SANITIZE}'")
endif()

# zd_add_gtest(<name> SOURCES ... LIBS ... [LABELS ...])
# One GoogleTest executable registered with CTest test by test.
function(zd_add_gtest name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main Threads::Threads)
  # One label per test (a list would not survive gtest_discover_tests'
  # PROPERTIES): the module's own, or "unit".
  set(labels unit)
  if(ARG_LABELS)
    list(GET ARG_LABELS 0 labels)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS "${labels}" TIMEOUT 120
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
endfunction()
