# libtess-framework, for processes that are built outside of this tree; packaging/ installs it. Static and shared are made of
# the objects that the tree itself links.
if(TESS_SANITIZE)
    return() # a library that wants a sanitizer's runtime is no use to anybody else
endif()

add_library(tess_framework_static STATIC $<TARGET_OBJECTS:tess_framework_objects>)
add_library(tess_framework_shared SHARED $<TARGET_OBJECTS:tess_framework_objects>)
set_target_properties(tess_framework_static PROPERTIES OUTPUT_NAME tess-framework EXPORT_NAME framework_static)
set_target_properties(tess_framework_shared PROPERTIES OUTPUT_NAME tess-framework EXPORT_NAME framework_shared
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/exports.map)
target_link_options(tess_framework_shared PRIVATE
    -Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/exports.map -Wl,--no-undefined -Wl,-z,relro)

# framework/hr_time_out.h has times in it: where their size is a choice, whoever includes it must make the choice of the library.
set(definitions)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(definitions _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

foreach(library tess_framework_static tess_framework_shared)
    set_target_properties(${library} PROPERTIES LINKER_LANGUAGE CXX)
    target_compile_features(${library} INTERFACE cxx_std_20)
    target_compile_definitions(${library} INTERFACE ${definitions})
    target_link_libraries(${library} INTERFACE Threads::Threads)
endforeach()
