# Makes the generated protobuf header self-contained for consumers: it uses
# the export macro, so it must include the header that defines it.
file(READ "${HEADER}" content)
string(FIND "${content}" "${LINE}" found)
if(found EQUAL -1)
    file(WRITE "${HEADER}" "${LINE}\n${content}")
endif()
