# Installs the build tree into a fresh prefix, checks the installed layout,
# builds the example host (examples/) against the installed package with
# find_package(zebtrk) and again with pkg-config, and runs it and the
# installed zebtrk command in emulator mode on one movie that the installed
# simulator writes into a temporary HOME's cache directory.
#
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DWORK_DIR=... -DLIBDIR=lib
#         [-DSANITIZE=address,undefined] -P InstallTest.cmake
cmake_minimum_required(VERSION 3.25)

foreach(variable BUILD_DIR SOURCE_DIR WORK_DIR LIBDIR)
  if(NOT DEFINED ${variable})
    message(FATAL_ERROR "${variable} is not set")
  endif()
endforeach()

# Runs a command; fails the test with its output unless it exits 0. The
# output is left in `output`.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " line "${ARGN}")
    message(FATAL_ERROR "failed (${status}): ${line}\n${out}\n${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

function(expect_in text part what)
  string(FIND "${text}" "${part}" position)
  if(position EQUAL -1)
    message(FATAL_ERROR "${what}: \"${part}\" not found in:\n${text}")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
set(home ${WORK_DIR}/home)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(file
    ${LIBDIR}/libzeb.so ${LIBDIR}/libzebfile.so ${LIBDIR}/libzebreduce.so ${LIBDIR}/libzebtrk.so
    bin/zebtrk bin/zebtrksvc
    include/zeb/IFileSystem.h include/zeb/file/CRawImagerFile.h include/zeb/reduce/CReduceObjectArray.h
    include/zebtrk/zebtrk.h include/zebtrk/CTrkInterface.h include/zebtrk/CTrkImagerFile.h
    ${LIBDIR}/cmake/zebtrk/zebtrkConfig.cmake ${LIBDIR}/cmake/zebtrk/zebtrkConfigVersion.cmake
    ${LIBDIR}/pkgconfig/zebtrk.pc share/man/man1/zebtrk.1 share/bash-completion/completions/zebtrk)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
# Nothing private of the plug-in's is installed.
file(GLOB private_headers ${prefix}/include/zebtrk/STrk* ${prefix}/include/client ${prefix}/include/ipc)
if(private_headers)
  message(FATAL_ERROR "private headers installed: ${private_headers}")
endif()

# The plug-in finds the framework beside itself or in ../lib.
run(readelf -d ${prefix}/${LIBDIR}/libzebtrk.so)
expect_in("${output}" "[$ORIGIN/.:$ORIGIN/../lib]" "RUNPATH of libzebtrk.so")

set(flags "")
if(SANITIZE)
  set(flags "-fsanitize=${SANITIZE}")
endif()

# One movie in the cache directory, written by the installed simulator.
set(cache "${home}/.cache/Ostrel Systems/TRK")
run(${prefix}/bin/zebtrksvc make-movie ${cache} --width 32 --height 24 --frames 3 --number 7 --name Fire)
set(environment --unset=ZEBTRK_PLUGIN HOME=${home} ZEBTRK_ENABLE_EMULATOR=1)

# The example, with find_package(zebtrk).
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples -B ${WORK_DIR}/example -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
    "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/example)
run(${CMAKE_COMMAND} -E env ${environment} ${WORK_DIR}/example/list_movies)
expect_in("${output}" "7-Fire: 3 frames of 32 x 24, 4608 bytes" "example (CMake package)")
expect_in("${output}" "frame 0 of trk:///7-Fire: 32 x 24 pixels" "example (CMake package)")

# The same source with pkg-config, and a C translation unit of the C interface.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
run(pkg-config --cflags --libs zebtrk)
string(STRIP "${output}" pkg_flags)
separate_arguments(pkg_flags UNIX_COMMAND "${pkg_flags}")
separate_arguments(sanitize_flags UNIX_COMMAND "${flags}")
# As the README shows it: the run-time path from pkg-config's libdir, so the
# host runs without LD_LIBRARY_PATH.
run(pkg-config --variable=libdir zebtrk)
string(STRIP "${output}" pkg_libdir)
run(c++ ${sanitize_flags} ${SOURCE_DIR}/examples/list_movies.cpp -o ${WORK_DIR}/list_movies_pc ${pkg_flags}
    -Wl,-rpath,${pkg_libdir})
run(${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${environment} ${WORK_DIR}/list_movies_pc)
expect_in("${output}" "frame 0 of trk:///7-Fire" "example (pkg-config)")
file(WRITE ${WORK_DIR}/c_host.c "#include <zebtrk/zebtrk.h>\nint main(void) { return zebtrk_drivePresent() ? 0 : 1; }\n")
run(pkg-config --cflags zebtrk)
string(STRIP "${output}" c_flags)
separate_arguments(c_flags UNIX_COMMAND "${c_flags}")
run(cc -std=c11 -Wall -Werror ${c_flags} -c ${WORK_DIR}/c_host.c -o ${WORK_DIR}/c_host.o)

# The installed command finds the installed plug-in by itself.
run(${CMAKE_COMMAND} -E env ${environment} ${prefix}/bin/zebtrk ls)
expect_in("${output}" "7-Fire" "installed zebtrk ls")
# The completion offers the movies and the formats; the man page is well formed.
file(WRITE ${WORK_DIR}/complete.sh [=[
source "$1/share/bash-completion/completions/zebtrk"
COMP_WORDS=(zebtrk rm 7); COMP_CWORD=2; _zebtrk; echo "${COMPREPLY[*]}"
COMP_WORDS=(zebtrk export x y --format t); COMP_CWORD=5; _zebtrk; echo "${COMPREPLY[*]}"
]=])
run(${CMAKE_COMMAND} -E env ${environment} PATH=${prefix}/bin:$ENV{PATH} bash ${WORK_DIR}/complete.sh ${prefix})
expect_in("${output}" "7-Fire\ntiff" "bash completion")
find_program(MAN man)
if(MAN)
  run(${CMAKE_COMMAND} -E env MANWIDTH=80 ${MAN} -l ${prefix}/share/man/man1/zebtrk.1)
  expect_in("${output}" "zebtrk --version | --help" "man page")
endif()

file(REMOVE_RECURSE ${WORK_DIR})
message(STATUS "install test passed")
