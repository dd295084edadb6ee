# Writes the module-definition file of the C interface (cmake -P):
#   -DALL=tovrel-all.def (every name the linker exported) -DOUT=tovrel_c.def
# Only the C functions (tovrel_*) go in: they are the names a program of
# another compiler can call; the C++ names are of mingw-w64's ABI.
file(STRINGS ${ALL} lines REGEX "^[ \t]*tovrel_[a-z0-9_]+")
set(text "LIBRARY tovrel.dll\nEXPORTS\n")
foreach(line ${lines})
  string(REGEX MATCH "tovrel_[a-z0-9_]+" name "${line}")
  string(APPEND text "  ${name}\n")
endforeach()
file(WRITE ${OUT} "${text}")
