# Installs the built library into a scratch prefix, then builds an outside
# project against it twice: through find_package and through pkg-config.
# Run with cmake -P; SOURCE_DIR, BUILD_DIR, WORK_DIR and GENERATOR are given.

cmake_policy(SET CMP0057 NEW)  # if(... IN_LIST ...)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

function(expect_consumer_output output)
  if(NOT output MATCHES "consumer ok: HERON_A 1\\.1\\.2")
    message(FATAL_ERROR "consumer printed: ${output}")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# find_package(ocp_api CONFIG)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package/consumer -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
expect_consumer_output("${last_output}")

# pkg-config
file(GLOB_RECURSE pc_files ${prefix}/*/ocp_api.pc)
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(pkg-config --cflags --libs ocp_api)
string(STRIP "${last_output}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${SOURCE_DIR}/tests/package/consumer/main.cpp ${flags} -o ${WORK_DIR}/consumer_pc)
run(${WORK_DIR}/consumer_pc)
expect_consumer_output("${last_output}")
# The installed headers stand on their own: together they include nothing that
# is not installed, and the internals of the CAN mapping are not among them.
file(GLOB installed_headers RELATIVE ${prefix}/include ${prefix}/include/ocp_api/*.hpp)
foreach(internal ocp_api/isotp.hpp ocp_api/can_node.hpp)
  if(internal IN_LIST installed_headers)
    message(FATAL_ERROR "an internal header is installed: ${internal}")
  endif()
endforeach()
set(all_headers_source "")
foreach(header IN LISTS installed_headers)
  string(APPEND all_headers_source "#include <${header}>\n")
endforeach()
file(WRITE ${WORK_DIR}/all_headers.cpp "${all_headers_source}")
run(c++ -std=c++17 -fsyntax-only -I${prefix}/include ${WORK_DIR}/all_headers.cpp)
list(LENGTH installed_headers header_count)
message(STATUS "installed package works through find_package and pkg-config; its ${header_count} headers include only installed ones")
