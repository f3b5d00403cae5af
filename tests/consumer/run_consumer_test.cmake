# Installs a build of the library into a scratch prefix and uses it from outside, twice: the
# CMake package (tests/consumer, find_package + the exported target + every header compiled on
# its own) and pkg-config (main.cpp compiled with nothing but `pkg-config --cflags --libs`).
# Both programs are run. Any failing step fails the script with its output.
#
#   cmake -DKTD_BINARY_DIR=<build> -DKTD_WORK_DIR=<scratch dir> [-DKTD_GENERATOR=Ninja]
#         [-DKTD_CXX_COMPILER=c++] [-DKTD_CONFIG=RelWithDebInfo] [-DKTD_SANITIZE=address]
#         -P tests/consumer/run_consumer_test.cmake
# CTest runs it as "consumer_package" (label "install").
cmake_minimum_required(VERSION 3.16)

foreach(v KTD_BINARY_DIR KTD_WORK_DIR)
  if(NOT ${v})
    message(FATAL_ERROR "${v} is not set")
  endif()
endforeach()
set(consumer_source "${CMAKE_CURRENT_LIST_DIR}")
if(NOT KTD_GENERATOR)
  set(KTD_GENERATOR "Ninja")
endif()
if(NOT KTD_CXX_COMPILER)
  set(KTD_CXX_COMPILER "c++")
endif()
if(NOT KTD_CONFIG)
  set(KTD_CONFIG "RelWithDebInfo")
endif()
set(prefix "${KTD_WORK_DIR}/prefix")
set(build "${KTD_WORK_DIR}/build")

# A build with sanitizers installs a library that needs the sanitizer runtime: consumers are
# built the same way.
set(san_flags "")
if(KTD_SANITIZE)
  set(san_flags "-fsanitize=${KTD_SANITIZE}")
endif()

function(step what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "consumer_package: ${what} failed (${rc}):\n${out}")
  endif()
  message(STATUS "consumer_package: ${what}: ok")
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE "${KTD_WORK_DIR}")
file(MAKE_DIRECTORY "${KTD_WORK_DIR}")

step("install into ${prefix}"
  "${CMAKE_COMMAND}" --install "${KTD_BINARY_DIR}" --prefix "${prefix}" --config "${KTD_CONFIG}")

# --- the CMake package ---
step("configure tests/consumer"
  "${CMAKE_COMMAND}" -S "${consumer_source}" -B "${build}" -G "${KTD_GENERATOR}"
  "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_BUILD_TYPE=${KTD_CONFIG}"
  "-DCMAKE_CXX_COMPILER=${KTD_CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${san_flags}"
  "-DCMAKE_EXE_LINKER_FLAGS=${san_flags}" -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON)
# The package must come from the scratch prefix, not from an older install elsewhere.
file(STRINGS "${build}/CMakeCache.txt" found_dir REGEX "^KorvanelTaskdata_DIR:")
string(FIND "${found_dir}" "${prefix}/" at)
if(at EQUAL -1)
  message(FATAL_ERROR "consumer_package: the package was found outside ${prefix}: ${found_dir}")
endif()
step("build tests/consumer with every installed header" "${CMAKE_COMMAND}" --build "${build}" --parallel 2)
step("run the find_package consumer" "${build}/ktd_consumer")
if(NOT step_output MATCHES "consumer ok")
  message(FATAL_ERROR "consumer_package: unexpected output:\n${step_output}")
endif()

# --- pkg-config ---
find_program(PKG_CONFIG_EXECUTABLE NAMES pkg-config pkgconf)
if(NOT PKG_CONFIG_EXECUTABLE)
  message(FATAL_ERROR "consumer_package: pkg-config not found (scripts/setup.sh installs it)")
endif()
file(GLOB_RECURSE pc_file "${prefix}/korvaneltaskdata.pc")
list(LENGTH pc_file pc_count)
if(NOT pc_count EQUAL 1)
  message(FATAL_ERROR "consumer_package: expected one installed korvaneltaskdata.pc, found: ${pc_file}")
endif()
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
step("pkg-config --cflags --libs korvaneltaskdata"
  "${PKG_CONFIG_EXECUTABLE}" --cflags --libs korvaneltaskdata)
string(STRIP "${step_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
step("pkg-config --variable=libdir korvaneltaskdata"
  "${PKG_CONFIG_EXECUTABLE}" --variable=libdir korvaneltaskdata)
string(STRIP "${step_output}" pc_libdir)
# The file is relocatable: whatever prefix it was installed to, it names that prefix.
if(NOT EXISTS "${pc_libdir}/libkorvaneltaskdata.so")
  message(FATAL_ERROR "consumer_package: pkg-config libdir ${pc_libdir} has no libkorvaneltaskdata.so")
endif()
separate_arguments(san_list UNIX_COMMAND "${san_flags}")
step("compile main.cpp with pkg-config flags"
  "${KTD_CXX_COMPILER}" -std=c++17 ${san_list} "${consumer_source}/main.cpp" -o "${KTD_WORK_DIR}/ktd_consumer_pc"
  ${pc_flags} "-Wl,-rpath,${pc_libdir}")
step("run the pkg-config consumer" "${KTD_WORK_DIR}/ktd_consumer_pc")
if(NOT step_output MATCHES "consumer ok")
  message(FATAL_ERROR "consumer_package: unexpected output:\n${step_output}")
endif()
message(STATUS "consumer_package: passed")
