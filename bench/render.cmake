curvana_benchmark(render_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/render_bench.cpp
  LIBS Curvana::render Curvana::geometry Curvana::warp)
