# cmake -DCXX=... -DINCLUDES=folder,folder... -P older_standard.cmake
#
# A compiler that is told to compile older C++ than the headers need says what they need before anything else.
string(REPLACE "," ";-I" flags "-I${INCLUDES}")
execute_process(COMMAND mktemp -d OUTPUT_VARIABLE work OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
foreach(header slate/slate.h slate/dictionary.h slate/duration.h slate/uuid.h tarn/tarn.h tarn/client.h tarn/server.h
               tarn/route.h)
  file(WRITE ${work}/source.cpp "#include <${header}>\n")
  foreach(standard 14 17)
    execute_process(COMMAND ${CXX} -std=c++${standard} -fsyntax-only ${flags} ${work}/source.cpp
                    ERROR_VARIABLE output RESULT_VARIABLE result)
    string(REGEX MATCH "error: [^\n]*" error "${output}")
    if(NOT error MATCHES "slate and tarn need C\\+\\+20: compile with -std=c\\+\\+20 or later")
      message(FATAL_ERROR "${header} with -std=c++${standard} begins (${result}) with ${error}\n${output}")
    endif()
  endforeach()
endforeach()
file(REMOVE_RECURSE ${work})
