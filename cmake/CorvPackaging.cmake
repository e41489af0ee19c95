# What `cmake --install` adds beyond the targets' own install rules, and the
# packages made from it by CPack: a .deb and a .tar.gz on Linux.
#
# Installed layout (below the prefix; /usr for the .deb):
#   lib/corvane/                  the program's folder: corvane, updatehost,
#                                 locale.ini, locale/, plugins/<id>/
#   bin/corvane                   a relative symbolic link to lib/corvane/corvane
#                                 (the program finds its folder through
#                                 /proc/self/exe, so the link leads it home)
#   share/applications/, share/icons/hicolor/, share/mime/packages/
#                                 the desktop entry, icons and the .corv type
#   share/corvane/examples/       the demo project, a systemd user unit and
#                                 the example plugin's sources
#   include/corvane/              the plugin SDK headers
#   lib/cmake/CorvaneSDK/         the SDK's CMake package
#   share/doc/corvane/            copyright and changelog.Debian.gz
#   share/man/man1/corvane.1.gz   the manual page (docs/corvane.1)
include(CMakePackageConfigHelpers)

# --- bin/corvane -------------------------------------------------------------

if(TARGET corvane AND NOT WIN32 AND NOT CORV_INSTALL_PROGRAMDIR STREQUAL CMAKE_INSTALL_BINDIR)
    file(RELATIVE_PATH corv_link_target
        /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CORV_INSTALL_PROGRAMDIR}/corvane)
    set(corv_link ${CMAKE_BINARY_DIR}/packaging/bin/corvane)
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/packaging/bin)
    file(CREATE_LINK ${corv_link_target} ${corv_link} SYMBOLIC)
    # A symbolic link given to install(FILES) is installed as a link.
    install(FILES ${corv_link} DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# --- The SDK: headers and the CMake package ----------------------------------

if(TARGET corv_sdk)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/sdk/include/corvane
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

    file(STRINGS ${PROJECT_SOURCE_DIR}/sdk/include/corvane/corvane_sdk.h corv_sdk_version_line
        REGEX "^#define CORV_SDK_VERSION [0-9]+")
    string(REGEX REPLACE ".* ([0-9]+).*" "\\1" CORV_SDK_API_VERSION "${corv_sdk_version_line}")

    # Beside the program's folder in lib/, whatever the libraries' folder of
    # the prefix is (lib/<triplet> below /usr on Debian).
    set(corv_cmake_package_dir lib/cmake/CorvaneSDK)
    configure_package_config_file(
        ${PROJECT_SOURCE_DIR}/cmake/CorvaneSDKConfig.cmake.in
        ${CMAKE_BINARY_DIR}/packaging/CorvaneSDKConfig.cmake
        INSTALL_DESTINATION ${corv_cmake_package_dir}
        PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR CORV_INSTALL_PLUGINDIR CORV_INSTALL_PROGRAMDIR)
    # The package is the program's: a plugin built against 0.9 headers loads
    # into any later 0.x program (the program refuses other SDK versions).
    write_basic_package_version_file(
        ${CMAKE_BINARY_DIR}/packaging/CorvaneSDKConfigVersion.cmake
        VERSION ${PROJECT_VERSION}
        COMPATIBILITY SameMajorVersion)
    install(FILES
            ${CMAKE_BINARY_DIR}/packaging/CorvaneSDKConfig.cmake
            ${CMAKE_BINARY_DIR}/packaging/CorvaneSDKConfigVersion.cmake
            ${PROJECT_SOURCE_DIR}/cmake/CorvanePlugin.cmake
        DESTINATION ${corv_cmake_package_dir})
endif()

# --- Debian's package documents and the manual page ---------------------------

if(NOT WIN32)
    find_program(CORV_GZIP gzip REQUIRED)
    set(corv_docs ${CMAKE_BINARY_DIR}/packaging/doc)
    file(MAKE_DIRECTORY ${corv_docs})
    # The date follows SOURCE_DATE_EPOCH when it is set.
    string(TIMESTAMP CORV_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.Debian.in ${corv_docs}/changelog.Debian @ONLY)
    configure_file(${PROJECT_SOURCE_DIR}/docs/corvane.1 ${corv_docs}/corvane.1 COPYONLY)
    # Compressed as Debian wants them: best compression, no name or time inside.
    foreach(document changelog.Debian corvane.1)
        execute_process(COMMAND ${CORV_GZIP} -9nc ${document}
            WORKING_DIRECTORY ${corv_docs} OUTPUT_FILE ${corv_docs}/${document}.gz
            COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
    install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${corv_docs}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/corvane)
    install(FILES ${corv_docs}/corvane.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

# --- CPack -------------------------------------------------------------------

set(CPACK_PACKAGE_NAME corvane)
set(CPACK_PACKAGE_VENDOR Marrowfield)
set(CPACK_PACKAGE_CONTACT "Marrowfield <corvane@marrowfield.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
# Debian's long description: lines of at most 80 characters.
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
    "Corvane runs projects of racks: trees of nodes that react to hotkeys,"
    "changed files, timers and posted messages and pass events along, delaying,"
    "limiting, filtering or transforming them, until they press keys, write"
    "files or show values. Projects are edited in a Qt window or run headless"
    "(corvane --headless). Includes the C plugin SDK with its CMake package"
    "(find_package(CorvaneSDK)) and an example plugin.")
set(CPACK_PACKAGE_HOMEPAGE_URL "${PROJECT_HOMEPAGE_URL}")
set(CPACK_PACKAGE_FILE_NAME corvane-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)

if(WIN32)
    set(CPACK_GENERATOR ZIP)
else()
    set(CPACK_GENERATOR "DEB;TGZ")
endif()

# Debian: dependencies come from the binaries (dpkg-shlibdeps), plus what Qt
# loads at run time rather than links: the platform plugins for the window,
# and the SVG icon engine.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libqt6svg6")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "cmake, gcc | c-compiler")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "${PROJECT_HOMEPAGE_URL}")
# Control files with the modes dpkg and lintian expect.
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
