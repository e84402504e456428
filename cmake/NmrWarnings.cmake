# Per-target warnings; -Werror only when NMR_WERROR is on (CI).
function(nmr_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wnon-virtual-dtor -Wpedantic)
  # Narrowing to a smaller integer or from an integer to a double is spelled out with a
  # cast. g++ only: clang's -Wconversion also reports every signed/unsigned mix.
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wconversion>)
  if(NMR_WERROR)
    # g++ 12's flow-based diagnostics misfire inside inlined standard-library code at -O2
    # (std::string and std::vector internals); they stay visible as warnings but do not
    # fail the build.
    target_compile_options(${target} PRIVATE -Werror -Wno-error=restrict
      -Wno-error=free-nonheap-object -Wno-error=maybe-uninitialized
      -Wno-error=stringop-overflow -Wno-error=array-bounds)
  endif()
endfunction()

# A folder library: nmr_<name> with the alias nmr::<name>.
function(nmr_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
  add_library(nmr_${name} STATIC ${ARG_SOURCES})
  add_library(nmr::${name} ALIAS nmr_${name})
  target_include_directories(nmr_${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(nmr_${name} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
  nmr_set_warnings(nmr_${name})
endfunction()
