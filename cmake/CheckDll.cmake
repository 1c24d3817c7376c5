# Script: fails when the DLL in FILE imports another DLL than those in IMPORTS, or exports other names
# than those in EXPORTS.
cmake_minimum_required(VERSION 3.25)

function(refuse reason)
    file(REMOVE "${FILE}")
    message(FATAL_ERROR "${FILE} ${reason}")
endfunction()

execute_process(COMMAND "${OBJDUMP}" -p "${FILE}" OUTPUT_VARIABLE headers COMMAND_ERROR_IS_FATAL ANY)

string(TOLOWER "${IMPORTS}" allowed)
string(REGEX MATCHALL "DLL Name: [^\r\n]+" imports "${headers}")
foreach(import IN LISTS imports)
    string(REPLACE "DLL Name: " "" name "${import}")
    string(TOLOWER "${name}" lower)
    if(NOT lower IN_LIST allowed)
        refuse("imports ${name}, which is not on every user's machine.")
    endif()
endforeach()

string(REGEX MATCH "\\[Ordinal/Name Pointer\\] Table[^\n]*\n([^\n]*\\[[^\n]*\n)+" table "${headers}")
string(REGEX MATCHALL "\\[ *[0-9]+\\] [A-Za-z_0-9]+" exports "${table}")
list(TRANSFORM exports REPLACE "^.* " "")
list(SORT exports)
list(SORT EXPORTS)
if(NOT exports STREQUAL EXPORTS)
    refuse("exports ${exports} instead of ${EXPORTS}")
endif()
