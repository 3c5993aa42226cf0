# Fails when an #include of a file under src/ or include/curvana/ points up
# the layer order: each folder may include its own files and those of the
# folders listed for it here, nothing else.
#   cmake -DROOT=<source root> -P CheckLayering.cmake
#
# Everything builds on core; warp builds on geometry, constraints on warp,
# the solver on constraints; render on geometry and warp; the line detection
# on geometry; the session on all of these and the C interface ("abi",
# include/curvana/); the editor on the session and the framework, and the
# editor's shared object (editorhost) on the editor; the module on the
# session (it opens the editor object at run time). The hosts see the C
# interface and the host kit (what both hosts share) only.
cmake_minimum_required(VERSION 3.25)

set(allowed_core "")
set(allowed_geometry core)
set(allowed_warp core geometry)
set(allowed_constraints core geometry warp)
set(allowed_solver core geometry warp constraints)
set(allowed_render core geometry warp)
set(allowed_detect core geometry)
set(allowed_session abi core geometry warp constraints solver render detect)
set(allowed_framework core)
set(allowed_editor abi core geometry warp constraints solver render detect session framework)
set(allowed_editorhost abi core geometry warp constraints solver render detect session framework
    editor)
set(allowed_plugin abi core geometry warp constraints solver render detect session)
set(allowed_hostkit abi)
set(allowed_host abi hostkit)
set(allowed_gimp abi hostkit)
set(allowed_abi "")
set(layers core geometry warp constraints solver render detect session framework editor editorhost
    plugin hostkit host gimp)

if(NOT ROOT)
  message(FATAL_ERROR "ROOT is not set")
endif()

# The layer a file belongs to, from its path below ROOT.
function(layer_of path out)
  file(RELATIVE_PATH rel ${ROOT} ${path})
  if(rel MATCHES "^include/curvana/")
    set(${out} abi PARENT_SCOPE)
  elseif(rel MATCHES "^src/([^/]+)/")
    set(${out} ${CMAKE_MATCH_1} PARENT_SCOPE)
  else()
    set(${out} "" PARENT_SCOPE)
  endif()
endfunction()

file(GLOB_RECURSE files LIST_DIRECTORIES false
  ${ROOT}/src/*.h ${ROOT}/src/*.hpp ${ROOT}/src/*.cpp ${ROOT}/src/*.c
  ${ROOT}/include/curvana/*.h)

set(violations "")
foreach(file IN LISTS files)
  layer_of(${file} from)
  if(NOT from IN_LIST layers AND NOT from STREQUAL "abi")
    string(APPEND violations "\n  ${file}: folder '${from}' has no place in the layer order")
    continue()
  endif()
  get_filename_component(dir ${file} DIRECTORY)
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*[\"<]")
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "#[ \t]*include[ \t]*([\"<])([^\">]+)[\">]")
      continue()
    endif()
    set(quote ${CMAKE_MATCH_1})
    set(target ${CMAKE_MATCH_2})
    # Which layer the include reaches: a path from the source root
    # ("layer/File.h"), the C interface ("curvana/File.h"), or a file beside
    # the includer. Other angle-bracket includes are system headers.
    set(to "")
    if(target MATCHES "^curvana/")
      set(to abi)
    elseif(target MATCHES "^([^/]+)/" AND CMAKE_MATCH_1 IN_LIST layers)
      set(to ${CMAKE_MATCH_1})
    elseif(quote STREQUAL "\"")
      if(EXISTS ${dir}/${target})
        layer_of(${dir}/${target} to)
      else()
        string(APPEND violations "\n  ${file}: \"${target}\" is neither beside it nor below a layer")
        continue()
      endif()
    endif()
    if(to STREQUAL "" OR to STREQUAL from)
      continue()
    endif()
    if(NOT to IN_LIST allowed_${from})
      string(APPEND violations "\n  ${file}: ${from} must not include ${to} (${target})")
    endif()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "Includes that break the layer order:${violations}")
endif()
list(LENGTH files count)
message(STATUS "layering: ${count} files, every include points down")
