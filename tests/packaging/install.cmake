# Read by the scripts beside it: installs the build at BUILD into a fresh tree, ${prefix} within the folder ${work}, and
# tells where the libraries are: ${libdir}.

# Runs a command that must succeed; what it prints is then in ${output}.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    string(JOIN " " line ${ARGV})
    message(FATAL_ERROR "failed (${result}): ${line}\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

# Builds the project at SOURCE against the installed packages, in ${work}/build.
function(build_project source)
  run(${CMAKE_COMMAND} -G ${GENERATOR} -S ${source} -B ${work}/build -DCMAKE_PREFIX_PATH=${prefix}
      -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${flags}")
  run(${CMAKE_COMMAND} --build ${work}/build)
endfunction()

execute_process(COMMAND mktemp -d OUTPUT_VARIABLE work OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(prefix ${work}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})

file(GLOB_RECURSE libdir ${prefix}/libtarn.so.0)
get_filename_component(libdir ${libdir} DIRECTORY)

set(flags "")
if(SANITIZE)
  set(flags -fsanitize=${SANITIZE})
endif()
