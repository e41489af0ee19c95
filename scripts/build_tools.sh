# Sourced by the build scripts. corv_build_tool_args prints, one per line,
# the CMake arguments every build folder here is configured with: Ninja and
# ccache where they are installed, CMake's defaults where not.
corv_build_tool_args() {
    if command -v ninja >/dev/null 2>&1; then
        printf '%s\n' -G Ninja
    fi
    if command -v ccache >/dev/null 2>&1; then
        printf '%s\n' -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
    fi
}
