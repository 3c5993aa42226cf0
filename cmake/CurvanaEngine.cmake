# libcurvana_engine.so: every layer below the editor (from the bottom layer up
# to the session) linked whole into one shared library. The filter module and
# the editor object both link it and neither links a layer archive itself, so
# each layer's static state (the translation table, the XMP toolkit, the
# lens database, the GPU compiler's process tables) exists once in a process,
# and the module alone maps no Qt. tests/plugin/CheckSingleCopy.cmake checks
# that no object beside it defines a global of ours a second time.
#
# Consumers get the layers' headers and public header-only dependencies, never
# their archives.
set(CURVANA_MODULE_OUTPUT_DIR ${PROJECT_BINARY_DIR}/src/plugin CACHE INTERNAL
    "Where the module, the engine and the editor object are built, side by side")

function(curvana_engine_library)
  set(layers)
  foreach(layer IN LISTS CURVANA_LAYERS)
    if(TARGET curvana_${layer})
      list(APPEND layers curvana_${layer})
    endif()
    if(layer STREQUAL "session")
      break()
    endif()
  endforeach()

  set(anchor ${CMAKE_CURRENT_BINARY_DIR}/curvana_engine.cpp)
  file(CONFIGURE OUTPUT ${anchor}
       CONTENT "// libcurvana_engine.so is made of the layer archives, linked whole.\n")
  add_library(curvana_engine SHARED ${anchor})
  add_library(Curvana::engine ALIAS curvana_engine)
  set_target_properties(curvana_engine PROPERTIES
    OUTPUT_NAME curvana_engine
    LIBRARY_OUTPUT_DIRECTORY ${CURVANA_MODULE_OUTPUT_DIR})
  # nodelete: the thread pools of the libraries the layers bring in (oneTBB,
  # OpenBLAS, the Vulkan driver) outlive any call into them.
  target_link_options(curvana_engine PRIVATE -Wl,--no-undefined -Wl,-z,nodelete)
  target_link_libraries(curvana_engine PRIVATE
    -Wl,--whole-archive ${layers} -Wl,--no-whole-archive Curvana::build_options)

  target_include_directories(curvana_engine PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(curvana_engine PUBLIC Curvana::abi)
  foreach(layer IN LISTS layers)
    get_target_property(deps ${layer} INTERFACE_LINK_LIBRARIES)
    foreach(dep IN LISTS deps)
      # Layers come through the engine; private dependencies of the archives
      # ($<LINK_ONLY:...>) were linked into it.
      if(dep MATCHES "^(Curvana::|curvana_|\\$<LINK_ONLY:)" OR NOT dep)
        continue()
      endif()
      target_link_libraries(curvana_engine PUBLIC ${dep})
    endforeach()
  endforeach()
endfunction()
