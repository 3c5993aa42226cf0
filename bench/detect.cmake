curvana_benchmark(detect_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/detect_bench.cpp
  LIBS Curvana::detect curvana_samplegen)
