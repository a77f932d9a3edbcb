# Compiler settings shared by every target of the project.
#
# ZEBTRK_SANITIZE: empty (plain build), "address,undefined" or "thread".

set(ZEBTRK_SANITIZE "" CACHE STRING "Sanitizers to build with (address,undefined | thread)")

# Our own code builds without warnings; any warning fails the build.
add_compile_options(-Wall -Wextra -Werror)

if(ZEBTRK_SANITIZE)
  add_compile_options(-fsanitize=${ZEBTRK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZEBTRK_SANITIZE})
endif()

# zebtrk_test(NAME SOURCES ... [LIBS ...] [SERVICE])
# One GoogleTest program per module test file. SERVICE marks tests that use the
# fixed service socket /tmp/zebtrksvc: ctest never runs two of them at once.
function(zebtrk_test name)
  cmake_parse_arguments(T "SERVICE" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} zebtrk_testsupport GTest::gmock GTest::gtest GTest::gtest_main Threads::Threads)
  add_test(NAME ${name} COMMAND ${name})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT})
  if(T_SERVICE)
    set_tests_properties(${name} PROPERTIES RESOURCE_LOCK zebtrksvc_socket)
  endif()
endfunction()
