# Shared compile settings for every Corvane target.

add_library(corv_warnings INTERFACE)
target_compile_options(corv_warnings INTERFACE
    $<$<CXX_COMPILER_ID:GNU,Clang>:-Wall -Wextra -Wpedantic -Wno-unused-parameter>)
target_compile_definitions(corv_warnings INTERFACE
    QT_NO_CAST_FROM_BYTEARRAY
    QT_NO_URL_CAST_FROM_STRING
    QT_DISABLE_DEPRECATED_UP_TO=0x060400)
# The Windows build (and CI) treat warnings as errors.
option(CORV_WERROR "Treat compiler warnings as errors" OFF)
if(CORV_WERROR)
    target_compile_options(corv_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU,Clang>:-Werror>)
endif()
# Every header is found from the repository root: #include "model/value.h".
target_include_directories(corv_warnings INTERFACE ${PROJECT_SOURCE_DIR})

if(CORV_SANITIZE)
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
endif()

# lld links the large test executables with their debug information about
# three times faster than the default linker (the Windows build carries no
# debug information, and its links are quick as they are).
if(NOT WIN32 AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    find_program(CORV_LLD ld.lld)
    if(CORV_LLD)
        add_link_options(-fuse-ld=lld)
    endif()
endif()

# ThreadSanitizer (scripts/tsan.sh); it can't be combined with the above.
option(CORV_SANITIZE_THREAD "Build with ThreadSanitizer" OFF)
if(CORV_SANITIZE_THREAD)
    if(CORV_SANITIZE)
        message(FATAL_ERROR "CORV_SANITIZE and CORV_SANITIZE_THREAD exclude each other")
    endif()
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
endif()

# corv_add_library(NAME folder-library SOURCES ... LIBS ...)
# One static library per folder; position-independent so the executable can
# export the SDK symbols it contains.
# With CORV_UNITY_BUILD the library's sources compile eight at a time as one
# unit: most of each unit's cost is the Qt headers, so a first build takes
# about a third of the library compile time. Turn it off while editing a
# library, so that a change recompiles its own file only (and a missing
# include shows).
option(CORV_UNITY_BUILD "Compile each folder library in a few combined units" ON)
function(corv_add_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    if(CORV_UNITY_BUILD)
        set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
        # A source included into a unit reads to GCC as a header, and a class
        # of it holding a type from its anonymous namespace would warn.
        target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
    endif()
    target_link_libraries(${name} PUBLIC corv_warnings ${ARG_LIBS})
endfunction()
