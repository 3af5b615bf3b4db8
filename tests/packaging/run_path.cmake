# cmake -DSOURCE=... -DCXX=... -DGENERATOR=... -P run_path.cmake
#
# What a packager installs who wants no run path has none.
execute_process(COMMAND mktemp -d OUTPUT_VARIABLE work OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
foreach(wanted ON OFF)
  execute_process(COMMAND ${CMAKE_COMMAND} -G ${GENERATOR} -S ${SOURCE} -B ${work}/${wanted} -DCMAKE_CXX_COMPILER=${CXX}
                          -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_EXAMPLES=OFF -DTARN_INSTALL_RPATH=${wanted}
                  OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${output}")
  endif()
  set(with_run_path "")
  file(GLOB_RECURSE scripts ${work}/${wanted}/cmake_install.cmake)
  foreach(script ${scripts})
    file(STRINGS ${script} found REGEX "ORIGIN")
    list(APPEND with_run_path ${found})
  endforeach()
  if(wanted AND NOT with_run_path)
    message(FATAL_ERROR "nothing gets a run path")
  elseif(NOT wanted AND with_run_path)
    message(FATAL_ERROR "a run path though it is off: ${with_run_path}")
  endif()
endforeach()
file(REMOVE_RECURSE ${work})
