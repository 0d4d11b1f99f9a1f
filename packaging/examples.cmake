# Builds the example against the installed library:
#
#   cp -r /usr/share/doc/libtess-dev/examples . && cmake -S examples -B examples/build && cmake --build examples/build
cmake_minimum_required(VERSION 3.25)
project(tess_examples LANGUAGES CXX)

find_package(tess-framework 1 REQUIRED)

add_executable(encoder encoder/main.cpp encoder/encoder.cpp)
target_include_directories(encoder PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/..) # its own files are named from there
target_link_libraries(encoder PRIVATE tess::framework)
