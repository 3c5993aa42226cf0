# openImage, readMetadata and every pixel, over arbitrary bytes; also replays
# the decoders' regressions.
curvana_fuzzer(image SOURCES ${PROJECT_SOURCE_DIR}/fuzz/image_fuzz.cpp LIBS curvana_hostlib
  ITERATIONS 3000
  SEEDS image png jpeg tiff)
