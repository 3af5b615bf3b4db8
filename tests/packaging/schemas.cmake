# cmake -DBUILD=... -DCXX=... -DSOURCE=... -DGENERATOR=... [-DSANITIZE=...] -P schemas.cmake
#
# Applications with schemas of their own: what works, and how an application ends that names a file like one of ours.
include(${CMAKE_CURRENT_LIST_DIR}/install.cmake)
build_project(${SOURCE})

foreach(program own_schema importing_schema importing_schema_at_fixed_address)
  run(${work}/build/${program} ${work}/${program}.sock)
  if(NOT output STREQUAL "ours and theirs\n")
    message(FATAL_ERROR "${program} printed: ${output}")
  endif()
endforeach()

execute_process(COMMAND ${work}/build/clashing_schema RESULT_VARIABLE result
                OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(result EQUAL 0 OR output MATCHES "reached main")
  message(FATAL_ERROR "clashing_schema ran (${result}): ${output}")
endif()
if(NOT output MATCHES "File already exists in database: status\\.proto")
  message(FATAL_ERROR "clashing_schema ended (${result}) without a word on its file: ${output}")
endif()
file(REMOVE_RECURSE ${work})
