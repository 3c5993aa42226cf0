# Compiler settings shared by every target of the project, as an interface
# library that each target links PRIVATE.
add_library(curvana_build_options INTERFACE)
add_library(Curvana::build_options ALIAS curvana_build_options)

target_compile_options(curvana_build_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align
  -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough)
if(CURVANA_WERROR)
  target_compile_options(curvana_build_options INTERFACE -Werror)
endif()

if(CURVANA_SANITIZE)
  # Applied globally so that every object, including the test executables and
  # the loadable module, carries the same instrumentation.
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()

if(CURVANA_FUZZ)
  # The whole tree is instrumented for coverage and the sanitizers, so the
  # fuzzer sees the branches of the parsers and decoders, not only those of
  # the harnesses. CURVANA_FUZZING turns off checks that fuzzed bytes cannot
  # pass (PNG checksums).
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  add_compile_definitions(CURVANA_FUZZING)
endif()

# curvana_layer(<name> SOURCES ... PUBLIC_LIBS ... PRIVATE_LIBS ...)
# One static library per layer of src/, with an alias Curvana::<name> and the
# source root as its include directory (headers are included as "layer/File.h").
# Every layer builds on core; which layer may include which is checked by the
# test layering.IncludesPointDown.
function(curvana_layer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
  add_library(curvana_${name} STATIC ${ARG_SOURCES})
  add_library(Curvana::${name} ALIAS curvana_${name})
  target_include_directories(curvana_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  if(NOT name STREQUAL "core")
    list(PREPEND ARG_PUBLIC_LIBS Curvana::core)
  endif()
  target_link_libraries(curvana_${name} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS} Curvana::build_options)
endfunction()
