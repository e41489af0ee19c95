# The Windows build (cross-built with MinGW-w64): the runtime DLLs a program
# needs beside it, and installing them with the program, so that the
# installed folder (the MSI's and the zip's) runs on a machine without Qt.

# The MinGW runtime: the C++ library, libgcc and winpthread.
set(corv_mingw_runtime_dlls)
set(corv_mingw_runtime_dirs)
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
        OUTPUT_VARIABLE found OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${found}" OR NOT EXISTS "${found}")
        find_file(found_${dll} ${dll} PATHS /usr/x86_64-w64-mingw32/lib
            /usr/lib/gcc/x86_64-w64-mingw32/12-posix NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
        set(found ${found_${dll}})
    endif()
    if(NOT EXISTS "${found}")
        message(FATAL_ERROR "The MinGW runtime ${dll} was not found")
    endif()
    get_filename_component(found "${found}" REALPATH)
    list(APPEND corv_mingw_runtime_dlls ${found})
    get_filename_component(dir ${found} DIRECTORY)
    list(APPEND corv_mingw_runtime_dirs ${dir})
endforeach()
list(REMOVE_DUPLICATES corv_mingw_runtime_dirs)
# For tests/wine-run.sh.in: the folders, as Wine's Z: drive sees them.
list(JOIN corv_mingw_runtime_dirs ";Z:" CORV_MINGW_RUNTIME_DIRS)

# Installed beside corvane.exe: the runtime, the Qt libraries the program
# uses and the Qt plugins it loads (the Windows platform, the style, image
# formats for icons).
install(FILES ${corv_mingw_runtime_dlls} DESTINATION ${CORV_INSTALL_PROGRAMDIR})
foreach(module Core Gui Widgets Network)
    install(FILES ${QT6_INSTALL_PREFIX}/bin/Qt6${module}.dll DESTINATION ${CORV_INSTALL_PROGRAMDIR})
endforeach()
install(FILES ${QT6_INSTALL_PREFIX}/plugins/platforms/qwindows.dll
    DESTINATION ${CORV_INSTALL_PROGRAMDIR}/platforms)
install(FILES ${QT6_INSTALL_PREFIX}/plugins/styles/qwindowsvistastyle.dll
    DESTINATION ${CORV_INSTALL_PROGRAMDIR}/styles)
install(FILES ${QT6_INSTALL_PREFIX}/plugins/imageformats/qico.dll
    DESTINATION ${CORV_INSTALL_PROGRAMDIR}/imageformats)
install(DIRECTORY ${QT6_INSTALL_PREFIX}/plugins/tls/ DESTINATION ${CORV_INSTALL_PROGRAMDIR}/tls
    FILES_MATCHING PATTERN "*.dll")
