# Test registration helpers.
#
#   nmr_add_test(<folder> SOURCES ... LIBS ... [LABELS unit] [TIMEOUT s])
#     builds <folder>_tests and registers CTest test "<folder>.<label>".
#   nmr_add_mpi_test(<folder> SOURCES ... LIBS ... [RANKS 1 2 3 4] [TIMEOUT s] [NODE_GROUPS])
#     builds <folder>_mpi_tests once and registers "<folder>.mpi.npN" per rank count,
#     launched through CMake's MPIEXEC_* variables. NODE_GROUPS also registers
#     "<folder>.mpi.npN.nodes2" for every N above 2, with NMRWALK_RANKS_PER_NODE=2, so
#     that the ranks behave as nodes of two processes each (at 1 or 2 ranks that is the
#     one real node, already covered).
# Both link nmr::testutil (testutil/); MPI tests also nmr::testutil_mpi, whose main starts MPI.

include(GoogleTest)

# OpenMPI refuses to put more ranks than cores on a node and refuses root; both are
# normal here (2-core CI machine, root in containers), so the flags go in once.
set(NMR_MPIEXEC_PREFLAGS --oversubscribe --allow-run-as-root --bind-to none
    CACHE STRING "Flags put before the program in every mpiexec test command")
set(MPIEXEC_PREFLAGS ${NMR_MPIEXEC_PREFLAGS} ${MPIEXEC_PREFLAGS})

set(NMR_LSAN_SUPPRESSIONS ${PROJECT_SOURCE_DIR}/cmake/lsan.supp)
set(NMR_TEST_ENV
    "LSAN_OPTIONS=suppressions=${NMR_LSAN_SUPPRESSIONS}:print_suppressions=0:fast_unwind_on_malloc=0"
    "ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:fast_unwind_on_malloc=0"
    "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1"
    "OMPI_MCA_rmaps_base_oversubscribe=1"
    "OMPI_ALLOW_RUN_AS_ROOT=1"
    "OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1"
    "NMR_SOURCE_DIR=${PROJECT_SOURCE_DIR}"
    "NMR_BINARY_DIR=${PROJECT_BINARY_DIR}")

# Sets var to the values that follow when the caller left it empty.
macro(nmr_default var)
  if(NOT ${var})
    set(${var} ${ARGN})
  endif()
endmacro()

function(nmr_add_test folder)
  cmake_parse_arguments(ARG "" "TIMEOUT;NAME" "SOURCES;LIBS;LABELS" ${ARGN})
  nmr_default(ARG_NAME ${folder}_tests)
  nmr_default(ARG_LABELS unit)
  nmr_default(ARG_TIMEOUT 300)
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_LIBS} nmr::testutil GTest::gtest GTest::gtest_main)
  nmr_set_warnings(${ARG_NAME})
  list(GET ARG_LABELS 0 first_label)
  add_test(NAME ${folder}.${first_label} COMMAND ${ARG_NAME})
  set_tests_properties(${folder}.${first_label} PROPERTIES
    LABELS "${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT} ENVIRONMENT "${NMR_TEST_ENV}")
endfunction()

function(nmr_add_mpi_test folder)
  cmake_parse_arguments(ARG "NODE_GROUPS" "TIMEOUT;NAME;PREFIX" "SOURCES;LIBS;RANKS;LABELS" ${ARGN})
  nmr_default(ARG_NAME ${folder}_mpi_tests)
  nmr_default(ARG_PREFIX ${folder}.mpi)
  nmr_default(ARG_RANKS 1 2 3 4)
  nmr_default(ARG_LABELS mpi)
  nmr_default(ARG_TIMEOUT 300)
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_LIBS} nmr::testutil_mpi)
  nmr_set_warnings(${ARG_NAME})
  foreach(n IN LISTS ARG_RANKS)
    nmr_add_mpi_run(${ARG_PREFIX}.np${n} ${ARG_NAME} ${n} "${ARG_LABELS}" ${ARG_TIMEOUT}
                    "${NMR_TEST_ENV}")
    if(ARG_NODE_GROUPS AND n GREATER 2)
      nmr_add_mpi_run(${ARG_PREFIX}.np${n}.nodes2 ${ARG_NAME} ${n} "${ARG_LABELS}" ${ARG_TIMEOUT}
                      "${NMR_TEST_ENV};NMRWALK_RANKS_PER_NODE=2")
    endif()
  endforeach()
endfunction()

# One CTest test: target under mpiexec at n ranks.
function(nmr_add_mpi_run name target n labels timeout environment)
  add_test(NAME ${name}
    COMMAND ${MPIEXEC_EXECUTABLE} ${MPIEXEC_NUMPROC_FLAG} ${n} ${MPIEXEC_PREFLAGS}
            $<TARGET_FILE:${target}> ${MPIEXEC_POSTFLAGS})
  set_tests_properties(${name} PROPERTIES
    PROCESSORS ${n} LABELS "${labels}" TIMEOUT ${timeout} ENVIRONMENT "${environment}")
endfunction()
