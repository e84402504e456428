# The python3 of the plotting script, the Python module and its tests: one that has numpy
# and matplotlib. The first python3 on PATH may be a private interpreter without them
# (pyenv and the like), so the system one is tried as well and the first that works is
# kept in NMR_PYTHON3.
set(NMR_PYTHON3 "" CACHE FILEPATH "python3 with numpy and matplotlib (empty: search)")
if(NOT NMR_PYTHON3)
  find_program(_nmr_python_path NAMES python3)
  set(_nmr_candidates ${_nmr_python_path} /usr/bin/python3 /usr/local/bin/python3)
  foreach(candidate IN LISTS _nmr_candidates)
    if(EXISTS "${candidate}")
      execute_process(COMMAND ${candidate} -c "import matplotlib, numpy"
                      RESULT_VARIABLE _nmr_status OUTPUT_QUIET ERROR_QUIET)
      if(_nmr_status EQUAL 0)
        set(NMR_PYTHON3 ${candidate} CACHE FILEPATH "python3 with numpy and matplotlib" FORCE)
        break()
      endif()
    endif()
  endforeach()
  if(NOT NMR_PYTHON3 AND _nmr_python_path)
    # Summaries still work without matplotlib; plots then fail with a clear message.
    set(NMR_PYTHON3 ${_nmr_python_path} CACHE FILEPATH "python3 with numpy and matplotlib" FORCE)
  endif()
endif()
