# The reference of the interface as HTML, for those who have Doxygen: cmake --build --preset dev --target reference
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
  return()
endif()

# All headers but those of parts; three of these belong to the interface, as its classes are derived from theirs, or its
# functions have them as arguments.
get_target_property(slate_headers slate HEADER_SET)
get_target_property(headers tarn HEADER_SET)
list(FILTER headers EXCLUDE REGEX "/internal/")
foreach(name defaults envelope pid_finder)
  list(APPEND headers ${PROJECT_SOURCE_DIR}/lib/tarn/internal/${name}.h)
endforeach()

set(reference_dir ${PROJECT_BINARY_DIR}/reference)
list(JOIN slate_headers "\" \"" slate_headers)
list(JOIN headers "\" \"" headers)
set(reference_input "\"${slate_headers}\" \"${headers}\"")
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${reference_dir}/Doxyfile @ONLY)
add_custom_target(reference
  COMMAND Doxygen::doxygen ${reference_dir}/Doxyfile
  COMMENT "Writing ${reference_dir}/html/index.html"
  VERBATIM)
