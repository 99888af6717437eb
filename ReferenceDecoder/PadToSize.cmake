# Appends to FILE until it has exactly SIZE bytes; fails when it is larger. What follows a library's last
# section is never mapped.
file(SIZE "${FILE}" size)
if(size GREATER SIZE)
    file(REMOVE "${FILE}")
    message(FATAL_ERROR "${FILE} has ${size} bytes, more than the ${SIZE} that it must have")
endif()
math(EXPR missing "${SIZE} - ${size}")
string(REPEAT "-" ${missing} padding)
file(APPEND "${FILE}" "${padding}")
