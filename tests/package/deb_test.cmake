# Builds the Debian package as `make package` does (a build for /usr of its
# own, CPack), checks what it holds with dpkg-deb -c and lintian, unpacks it
# into a scratch root, and uses it from there the way an installed package is
# used: an outside project through find_package and pkg-config, ocpctl with its
# manual page, and the Python module with nothing but the unpacked folder on
# its search path. Run with cmake -P; SOURCE_DIR, WORK_DIR, GENERATOR and
# PYTHON are given.

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK_DIR}/root ${WORK_DIR}/consumer)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr
    -DOCP_API_BUILD_TESTS=OFF -DOCP_API_BUILD_EXAMPLES=OFF)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(GLOB old_packages ${WORK_DIR}/build/ocp-api_*.deb)
if(old_packages)
  file(REMOVE ${old_packages})
endif()
execute_process(COMMAND cpack WORKING_DIRECTORY ${WORK_DIR}/build RESULT_VARIABLE rc OUTPUT_VARIABLE out
                ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cpack failed: ${out}\n${err}")
endif()
file(GLOB deb ${WORK_DIR}/build/ocp-api_*_amd64.deb ${WORK_DIR}/build/ocp-api_*.deb)
list(GET deb 0 deb)

# What the package holds: every part a user installs, where Debian looks.
execute_process(COMMAND ${PYTHON} -c "import sys; print(f'{sys.version_info[0]}{sys.version_info[1]}')"
                OUTPUT_VARIABLE python_tag OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND dpkg-architecture -qDEB_HOST_MULTIARCH OUTPUT_VARIABLE multiarch
                OUTPUT_STRIP_TRAILING_WHITESPACE)
run(dpkg-deb -c ${deb})
set(listing "${last_output}")
foreach(path
    ./usr/bin/ocpctl
    ./usr/include/ocp_api/orrery_actuator.hpp
    ./usr/include/ocp_api/version.hpp
    ./usr/lib/${multiarch}/libocp_api.a
    ./usr/lib/${multiarch}/cmake/ocp_api/ocp_apiConfig.cmake
    ./usr/lib/${multiarch}/cmake/ocp_api/ocp_apiConfigVersion.cmake
    ./usr/lib/${multiarch}/cmake/ocp_api/ocp_apiTargets.cmake
    ./usr/lib/${multiarch}/pkgconfig/ocp_api.pc
    ./usr/lib/python3/dist-packages/ocp_api/__init__.py
    ./usr/lib/python3/dist-packages/ocp_api/__init__.pyi
    ./usr/lib/python3/dist-packages/ocp_api/aio.py
    ./usr/lib/python3/dist-packages/ocp_api/py.typed
    ./usr/lib/python3/dist-packages/ocp_api/_ocp_api.cpython-${python_tag}-${multiarch}.so
    ./usr/share/man/man1/ocpctl.1.gz
    ./usr/share/bash-completion/completions/ocpctl
    ./usr/share/doc/ocp-api/copyright
    ./usr/share/doc/ocp-api/changelog.Debian.gz)
  string(FIND "${listing}" " ${path}\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${path} is not in the package:\n${listing}")
  endif()
endforeach()
# Nothing outside /usr, and nothing of the build tree.
string(REGEX MATCHALL " \\./[^\n]*" entries "${listing}")
foreach(entry IN LISTS entries)
  if(NOT entry MATCHES "^ \\./(usr/.*)?$")
    message(FATAL_ERROR "unexpected entry in the package:${entry}")
  endif()
endforeach()

# lintian: no errors.
find_program(LINTIAN lintian)
if(LINTIAN)
  run(${LINTIAN} --fail-on error --tag-display-limit 0 ${deb})
  message(STATUS "lintian: ${last_output}")
else()
  message(FATAL_ERROR "lintian is missing (scripts/install-deps.sh installs it)")
endif()

# Unpacked into a scratch root, used from there.
set(root ${WORK_DIR}/root)
run(dpkg-deb -x ${deb} ${root})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package/consumer -B ${WORK_DIR}/consumer -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${root}/usr)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${WORK_DIR}/consumer/consumer)
if(NOT last_output MATCHES "consumer ok: HERON_A 1\\.1\\.2")
  message(FATAL_ERROR "consumer (find_package) printed: ${last_output}")
endif()
set(ENV{PKG_CONFIG_PATH} ${root}/usr/lib/${multiarch}/pkgconfig)
run(pkg-config --cflags --libs ocp_api)
string(STRIP "${last_output}" flags)
if(NOT flags MATCHES "-I${root}/usr/")
  message(FATAL_ERROR "pkg-config does not point into the unpacked package: ${flags}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${SOURCE_DIR}/tests/package/consumer/main.cpp ${flags} -o ${WORK_DIR}/consumer/consumer_pc)
run(${WORK_DIR}/consumer/consumer_pc)
if(NOT last_output MATCHES "consumer ok: HERON_A 1\\.1\\.2")
  message(FATAL_ERROR "consumer (pkg-config) printed: ${last_output}")
endif()

run(${root}/usr/bin/ocpctl --version)
run(gzip -t ${root}/usr/share/man/man1/ocpctl.1.gz)
run(${CMAKE_COMMAND} -E env PYTHONPATH=${root}/usr/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1
    ${PYTHON} -c "
import asyncio, sys, ocp_api
from ocp_api import aio
assert ocp_api.__file__.startswith(sys.argv[1]), ocp_api.__file__
async def main():
    async with aio.open_bus('sim') as bus:
        async with bus.actuator(0x21) as joint:
            print('python ok:', joint.model, joint.firmware)
asyncio.run(main())
" ${root})
if(NOT last_output MATCHES "python ok: HERON_A 1\\.1\\.2")
  message(FATAL_ERROR "the unpacked Python module printed: ${last_output}")
endif()
message(STATUS "the package holds every part, is lintian-clean and works unpacked")
