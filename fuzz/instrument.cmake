# The fuzzing build (POL_FUZZ=ON): every object of the project carries
# libFuzzer's coverage hooks and AddressSanitizer + UBSan, so the engine
# sees the library's own branches; the targets in fuzz/ link the engine.
if(NOT CMAKE_C_COMPILER_ID STREQUAL "Clang" OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "POL_FUZZ needs clang: configure with CC=clang CXX=clang++")
endif()
add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                    -fno-omit-frame-pointer -g)
add_link_options(-fsanitize=address,undefined)
