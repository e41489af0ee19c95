# corv_add_test(tst_name LABEL folder... SOURCES ... LIBS ... [XVFB] [ENV k=v ...])
# Builds a QtTest executable that exports the SDK (so plugins built in the tree
# resolve against it), registers it with CTest under the folder's label, and
# runs it on the offscreen platform with private application-data folders
# (and a control socket folder of its own, CORV_TEST_CONTROL_DIR, so that tests
# running at once never reach each other's instances).
#
# In the Windows build the tests run under Wine (tests/wine-run.sh.in).
if(WIN32)
    configure_file(${PROJECT_SOURCE_DIR}/tests/wine-run.sh.in ${CMAKE_BINARY_DIR}/wine-run @ONLY
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endif()

function(corv_add_test name)
    cmake_parse_arguments(ARG "XVFB" "TIMEOUT" "LABEL;SOURCES;LIBS;ENV" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES
        ENABLE_EXPORTS ON
        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/bin)
    target_link_libraries(${name} PRIVATE corv_warnings Qt6::Test ${ARG_LIBS})
    # Folders compiled in, so a test also runs on its own from the build folder.
    target_compile_definitions(${name} PRIVATE CORV_TEST_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
                               CORV_TEST_RUNTIME_DIR="${CORV_RUNTIME_DIR}")
    set(home ${CMAKE_BINARY_DIR}/tests/home/${name})
    if(ARG_XVFB)
        set(cmd ${CMAKE_SOURCE_DIR}/tests/xvfb-run-test.sh $<TARGET_FILE:${name}>)
        set(platform xcb)
    elseif(WIN32)
        set(cmd ${CMAKE_BINARY_DIR}/wine-run --qtest $<TARGET_FILE:${name}>)
        set(platform offscreen)
        target_sources(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/offscreen_default.cpp)
    else()
        set(cmd $<TARGET_FILE:${name}>)
        set(platform offscreen)
        target_sources(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/offscreen_default.cpp)
    endif()
    add_test(NAME ${name} COMMAND ${cmd})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    set_tests_properties(${name} PROPERTIES
        LABELS "${ARG_LABEL}"
        TIMEOUT ${ARG_TIMEOUT}
        ENVIRONMENT_MODIFICATION "QT_QPA_PLATFORM=set:${platform};XDG_RUNTIME_DIR=set:${home}/run;CORV_TEST_CONTROL_DIR=set:${home}/run;XDG_DATA_HOME=set:${home}/data;XDG_CONFIG_HOME=set:${home}/config;XDG_CACHE_HOME=set:${home}/cache;HOME=set:${home};QT_NO_GLIB=set:1;CORV_SOURCE_DIR=set:${CMAKE_SOURCE_DIR};CORV_RUNTIME_DIR=set:${CORV_RUNTIME_DIR}")
    if(ARG_ENV)
        set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT ${ARG_ENV})
    endif()
    file(MAKE_DIRECTORY ${home}/run)
    file(CHMOD ${home}/run DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endfunction()
