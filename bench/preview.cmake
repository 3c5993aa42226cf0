# The editor's live preview on the demo's sample photograph and constraints.
if(TARGET curvana_engine AND TARGET curvana_hostlib)
  curvana_benchmark(preview_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/preview_bench.cpp
    LIBS Curvana::engine curvana_hostlib)
  target_compile_definitions(preview_bench PRIVATE
    CURVANA_SAMPLE_PHOTO="${CURVANA_SAMPLE_PHOTO}"
    CURVANA_SAMPLE_CONSTRAINTS="${CURVANA_SAMPLE_CONSTRAINTS}")
  add_dependencies(preview_bench curvana_sample_photo)
endif()
