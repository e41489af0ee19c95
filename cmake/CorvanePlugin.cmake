# corvane_add_plugin(target ID id SOURCES source... [LOCALE dir]
#                    [OUTPUT_DIR dir] [NO_INSTALL])
#
# Builds a Corvane plugin: a MODULE library named exactly like the plugin id
# (no "lib" prefix) inside a folder of the same name, with the plugin's
# locale folder copied beside it, so that the folder can be copied as it is
# into a "plugins" folder. The library is compiled against the SDK header
# only (target Corvane::SDK) with hidden visibility, so that only the
# CPLUGIN_EXPORT entry points are exported. It is not linked against the
# program: its corv_* symbols stay undefined and are bound to the running
# program's exports when the program loads it. CORVANE_PLUGIN_ID is defined
# to the id as a string literal, so cplugin_get_info can report the same id
# the folder and library carry.
#
# The folder is made in CORVANE_PLUGIN_OUTPUT_DIR (default: "plugins" in the
# top build folder) unless OUTPUT_DIR names the folder itself. Unless
# NO_INSTALL is given, `cmake --install` puts it into
# CORVANE_PLUGIN_INSTALL_DIR/<id>.
#
# This file is used by Corvane's own build and installed with the SDK's CMake
# package (find_package(CorvaneSDK)), which provides Corvane::SDK.
include_guard(GLOBAL)

function(corvane_add_plugin target)
    cmake_parse_arguments(PARSE_ARGV 1 ARG "NO_INSTALL" "ID;LOCALE;OUTPUT_DIR" "SOURCES")
    if(ARG_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "corvane_add_plugin(${target}): unknown arguments ${ARG_UNPARSED_ARGUMENTS}")
    endif()
    # The id names a folder and a file, and is compared with the folder's
    # name when the plugin is loaded.
    if(NOT ARG_ID MATCHES "^[A-Za-z0-9_][A-Za-z0-9._-]*$")
        message(FATAL_ERROR "corvane_add_plugin(${target}): ID \"${ARG_ID}\" is not a plugin id "
            "(letters, digits, \".\", \"_\" and \"-\", as in com.example.mynodes)")
    endif()
    if(NOT ARG_SOURCES)
        message(FATAL_ERROR "corvane_add_plugin(${target}): no SOURCES")
    endif()
    if(NOT TARGET Corvane::SDK)
        message(FATAL_ERROR "corvane_add_plugin(${target}): Corvane::SDK is missing; use find_package(CorvaneSDK)")
    endif()

    if(NOT ARG_OUTPUT_DIR)
        if(CORVANE_PLUGIN_OUTPUT_DIR)
            set(ARG_OUTPUT_DIR ${CORVANE_PLUGIN_OUTPUT_DIR}/${ARG_ID})
        else()
            set(ARG_OUTPUT_DIR ${CMAKE_BINARY_DIR}/plugins/${ARG_ID})
        endif()
    endif()

    add_library(${target} MODULE ${ARG_SOURCES})
    set_target_properties(${target} PROPERTIES
        PREFIX ""
        OUTPUT_NAME ${ARG_ID}
        AUTOMOC OFF
        AUTOUIC OFF
        AUTORCC OFF
        C_VISIBILITY_PRESET hidden
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        LIBRARY_OUTPUT_DIRECTORY ${ARG_OUTPUT_DIR}
        RUNTIME_OUTPUT_DIRECTORY ${ARG_OUTPUT_DIR})
    # Multi-configuration generators would add a folder per configuration.
    foreach(config IN LISTS CMAKE_CONFIGURATION_TYPES)
        string(TOUPPER ${config} config)
        set_target_properties(${target} PROPERTIES
            LIBRARY_OUTPUT_DIRECTORY_${config} ${ARG_OUTPUT_DIR}
            RUNTIME_OUTPUT_DIRECTORY_${config} ${ARG_OUTPUT_DIR})
    endforeach()
    target_link_libraries(${target} PRIVATE Corvane::SDK)
    target_compile_features(${target} PRIVATE c_std_99)
    target_compile_definitions(${target} PRIVATE "CORVANE_PLUGIN_ID=\"${ARG_ID}\"")
    # The corv_* symbols are the program's; keep them undefined even where
    # the toolchain asks for every symbol to be defined. Windows has no
    # undefined symbols in a DLL: there the plugin imports them from
    # corvane.exe through the program's import library.
    if(WIN32)
        if(TARGET Corvane::corvane)
            target_link_libraries(${target} PRIVATE Corvane::corvane)
        elseif(TARGET corvane)
            target_link_libraries(${target} PRIVATE corvane)
        else()
            message(FATAL_ERROR "corvane_add_plugin(${target}): no Corvane::corvane to import the SDK from")
        endif()
    elseif(APPLE)
        target_link_options(${target} PRIVATE "LINKER:-undefined,dynamic_lookup")
    elseif(UNIX AND CMAKE_C_COMPILER_ID MATCHES "GNU|Clang")
        target_link_options(${target} PRIVATE "LINKER:-z,undefs")
    endif()

    if(ARG_LOCALE)
        get_filename_component(locale ${ARG_LOCALE} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
        add_custom_command(TARGET ${target} POST_BUILD
            COMMAND ${CMAKE_COMMAND} -E copy_directory ${locale} ${ARG_OUTPUT_DIR}/locale
            VERBATIM)
    endif()

    if(NOT ARG_NO_INSTALL)
        if(NOT CORVANE_PLUGIN_INSTALL_DIR)
            message(FATAL_ERROR "corvane_add_plugin(${target}): set CORVANE_PLUGIN_INSTALL_DIR or pass NO_INSTALL")
        endif()
        install(TARGETS ${target}
            LIBRARY DESTINATION ${CORVANE_PLUGIN_INSTALL_DIR}/${ARG_ID}
            RUNTIME DESTINATION ${CORVANE_PLUGIN_INSTALL_DIR}/${ARG_ID})
        if(ARG_LOCALE)
            install(DIRECTORY ${locale}/ DESTINATION ${CORVANE_PLUGIN_INSTALL_DIR}/${ARG_ID}/locale)
        endif()
    endif()
endfunction()
