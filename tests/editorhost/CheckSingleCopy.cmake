# Fails when an object beside the engine (the module, an editor object)
# defines a writable global of ours -- a variable of namespace Project or
# Velmo, a function's static or its guard, exported or not -- that the engine
# defines too: that state would then exist twice in a process (an inline
# function's static compiled into both, or a layer archive linked into the
# object). Constants (read-only sections, vtables, type information) may
# repeat. Needs the objects' symbol tables (builds that are not stripped).
# Run as: cmake -DNM=... -DENGINE=... "-DOBJECTS=a.so;b.so" -P CheckSingleCopy.cmake
function(writable_globals out file)
  execute_process(COMMAND ${NM} ${ARGN} -f sysv --defined-only ${file}
                  OUTPUT_VARIABLE listing ERROR_VARIABLE errors RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0 OR errors MATCHES "no symbols")
    message(FATAL_ERROR "nm cannot list ${file}: ${errors}")
  endif()
  # name|value|class|type|size|line|section
  string(REGEX MATCHALL "[^\n]*(7Project|5Velmo)[^\n]*\\|\\.(t?bss|t?data)[^\n]*" lines "${listing}")
  set(names)
  foreach(line IN LISTS lines)
    string(REGEX REPLACE " *\\|.*$" "" name "${line}")
    string(REGEX REPLACE "^.*\\|" "" section "${line}")
    if(NOT name MATCHES "^(_ZT[VISTC]|DW\\.ref\\.)" AND NOT section MATCHES "^\\.data\\.rel\\.ro")
      list(APPEND names ${name})
    endif()
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

writable_globals(engine ${ENGINE})
list(LENGTH engine count)
if(count EQUAL 0)
  message(FATAL_ERROR "the engine ${ENGINE} holds no globals of ours: wrong or stripped file?")
endif()
foreach(object IN LISTS OBJECTS)
  writable_globals(own ${object})
  foreach(name IN LISTS own)
    list(FIND engine ${name} at)
    if(NOT at EQUAL -1)
      message(FATAL_ERROR "${object} has its own copy of ${name}, which the engine holds")
    endif()
  endforeach()
endforeach()
