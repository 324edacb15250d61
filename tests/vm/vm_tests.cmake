# Tests that need a kernel CAN stack run inside a small virtual machine
# (tests/vm/run-in-vm.sh). They run in the normal build; the sanitizer builds
# turn them off because a guest boot per test costs more than it finds there.
option(OCP_API_VM_TESTS "Run the SocketCAN tests inside a QEMU virtual machine" ON)

set(OCP_API_VM_RUNNER ${CMAKE_CURRENT_LIST_DIR}/run-in-vm.sh)

# ocp_api_add_vm_test(NAME <ctest name> COMMAND <program> [ARGS...]
#                     [PROGRAMS <extra program>...] [SMOKE])
# Runs <program> in the guest; <program> and PROGRAMS may be targets or paths.
# The runner exits with 77 when QEMU cannot run on the host: CTest reports
# the test as skipped, with the runner's reason in its output.
function(ocp_api_add_vm_test)
  cmake_parse_arguments(VM "SMOKE" "NAME" "COMMAND;PROGRAMS" ${ARGN})
  if(NOT OCP_API_VM_TESTS)
    return()
  endif()
  set(runner_args)
  foreach(program IN LISTS VM_PROGRAMS)
    if(TARGET ${program})
      list(APPEND runner_args --bin $<TARGET_FILE:${program}>)
    else()
      list(APPEND runner_args --bin ${program})
    endif()
  endforeach()
  if(VM_SMOKE)
    list(APPEND runner_args --smoke)
  endif()
  list(POP_FRONT VM_COMMAND program)
  if(TARGET ${program})
    set(program $<TARGET_FILE:${program}>)
  endif()
  add_test(NAME ${VM_NAME} COMMAND ${OCP_API_VM_RUNNER} ${runner_args} -- ${program} ${VM_COMMAND})
  # The first run on an empty cache fetches the guest kernel (~70 MB).
  set_tests_properties(${VM_NAME} PROPERTIES LABELS vm TIMEOUT 900 SKIP_RETURN_CODE 77)
endfunction()

if(OCP_API_VM_TESTS)
  # The guest's CAN stack itself: can-utils on classic CAN, CAN-FD and ISO-TP.
  add_test(NAME vm.smoke COMMAND ${OCP_API_VM_RUNNER} --smoke-only)
  set_tests_properties(vm.smoke PROPERTIES LABELS vm TIMEOUT 900 SKIP_RETURN_CODE 77)
endif()
