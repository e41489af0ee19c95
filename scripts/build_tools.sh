# Sourced by the build scripts.

# corv_build_tool_args prints, one per line, the CMake arguments every build
# folder here is configured with: Ninja and ccache where they are installed,
# CMake's defaults where not.
corv_build_tool_args() {
    if command -v ninja >/dev/null 2>&1; then
        printf '%s\n' -G Ninja
    fi
    if command -v ccache >/dev/null 2>&1; then
        printf '%s\n' -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
    fi
}

# corv_install_packages LIST installs the Debian packages named in LIST (one
# or more a line, # comments) that are missing, through sudo when not root.
corv_install_packages() {
    local line word package wanted=() missing=()
    while IFS= read -r line || [[ -n $line ]]; do
        line="${line%%#*}"
        for word in $line; do
            wanted+=("$word")
        done
    done <"$1"
    ((${#wanted[@]})) || return 0
    local -A installed=()
    local name status
    while read -r name status; do
        [[ $status == installed ]] && installed[$name]=1
    done < <(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "${wanted[@]}" 2>/dev/null || true)
    for package in "${wanted[@]}"; do
        [[ -n ${installed[$package]:-} ]] || missing+=("$package")
    done
    ((${#missing[@]})) || return 0

    printf 'setup: installing %s\n' "${missing[*]}" >&2
    local as_root=()
    if ((EUID != 0)); then
        if ! command -v sudo >/dev/null 2>&1; then
            printf 'setup: not root and no sudo: install these packages by hand: %s\n' "${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${missing[@]}" </dev/null
}

# corv_cache_dir prints the folder kept between builds outside the checkout.
corv_cache_dir() {
    printf '%s\n' "${CORV_CACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/corvane}"
}

# corv_windows_qt prints the folder of the Windows Qt, unpacking it once from
# the archive beside the checkout (../shared/toolchains) after checking its
# digest.
corv_windows_qt() {
    local root archive sums cache name
    root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
    archive="${CORV_WINDOWS_QT_ARCHIVE:-$root/../shared/toolchains/qt-6.4.2-mingw-x64.tar.xz}"
    sums="$(dirname "$archive")/SHA256SUMS"
    cache="$(corv_cache_dir)"
    name="$(basename "$archive" .tar.xz)"
    if [[ ! -f $cache/$name/.unpacked ]]; then
        if [[ ! -f $archive ]]; then
            printf 'build-windows: no Windows Qt at %s (set CORV_WINDOWS_QT_ARCHIVE)\n' "$archive" >&2
            return 1
        fi
        if [[ -f $sums ]]; then
            (cd "$(dirname "$archive")" && grep " $(basename "$archive")\$" SHA256SUMS | sha256sum -c --quiet -) >&2
        fi
        mkdir -p "$cache"
        rm -rf "${cache:?}/$name"
        tar -xJf "$archive" -C "$cache"
        touch "$cache/$name/.unpacked"
    fi
    printf '%s\n' "$cache/$name"
}
