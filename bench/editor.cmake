# The editor dialog as a user meets it: `curvana edit` on the demo's sample
# photograph in the benchmark's process, offscreen (own main: Qt needs its
# application object).
if(TARGET curvana_editordriver AND TARGET curvana_editor_object)
  add_executable(editor_bench ${CMAKE_CURRENT_LIST_DIR}/editor_bench.cpp)
  target_link_libraries(editor_bench PRIVATE curvana_editordriver Curvana::framework Curvana::session
                        curvana_samplegen benchmark::benchmark
                        Curvana::build_options)
  target_compile_definitions(editor_bench PRIVATE
    CURVANA_MODULE="$<TARGET_FILE:curvana_module>"
    CURVANA_SAMPLE_PHOTO="${CURVANA_SAMPLE_PHOTO}"
    CURVANA_SAMPLE_CONSTRAINTS="${CURVANA_SAMPLE_CONSTRAINTS}")
  add_dependencies(editor_bench curvana_module curvana_editor_object curvana_sample_photo)
endif()
