#!/usr/bin/env bash
# Installs the .deb on a fresh Debian 12 (bookworm), as a user would: makes a
# minimal system with debootstrap, installs the package there with apt (which
# must resolve every dependency from the Debian mirror), runs the installed
# `corvane --headless` on the installed demo project as an ordinary user with
# no display, then installs cmake and gcc, builds the installed example
# plugin's sources against the installed SDK with the README's commands,
# which install it into the user's plugins folder, and checks that it loads; last, verifies the installed
# systemd user unit against the installed program.
#
# Slow (a few minutes, mostly debootstrap and apt) and needs root and the
# Debian mirror, so CI does not run it; scripts/check-package.sh is the quick
# check. Makes the .deb with CPack when <build>/packages/ has none.
#   CORV_BUILD_DIR     the build folder (default build/)
#   CORV_MIRROR        the Debian mirror (default http://deb.debian.org/debian)
#   CORV_KEEP_CHROOT=1 keeps the chroot (its path is printed)
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${CORV_BUILD_DIR:-$root/build}"
mirror="${CORV_MIRROR:-http://deb.debian.org/debian}"
started=$SECONDS

say() { printf 'check-deb-chroot: %s (%d s)\n' "$*" $((SECONDS - started)) >&2; }
fail() {
    say "FAILED: $*"
    exit 1
}
((EUID == 0)) || fail "debootstrap and chroot need root"
for tool in debootstrap dpkg-deb; do
    command -v "$tool" >/dev/null 2>&1 || fail "$tool is missing (scripts/packages.txt lists it)"
done

version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
deb="$(ls "$build"/packages/corvane_"$version"_*.deb 2>/dev/null | head -1 || true)"
if [[ -z $deb ]]; then
    say "making the .deb"
    (cd "$build" && cpack -G DEB) >/dev/null
    deb="$(ls "$build"/packages/corvane_"$version"_*.deb)"
fi
say "$(basename "$deb"): $(stat -c %s "$deb") bytes"

target="$(mktemp -d /var/tmp/corvane-bookworm.XXXXXX)"
# The root of a system: every user must reach into it.
chmod 755 "$target"
mounted=()
cleanup() {
    local i
    for ((i = ${#mounted[@]} - 1; i >= 0; --i)); do
        umount -l "${mounted[i]}" 2>/dev/null || true
    done
    if [[ ${CORV_KEEP_CHROOT:-0} == 1 ]]; then
        say "kept the chroot in $target"
    else
        rm -rf --one-file-system "$target"
    fi
}
trap cleanup EXIT

# --- A fresh Debian 12 -------------------------------------------------------

debootstrap --variant=minbase bookworm "$target" "$mirror" >"$target.debootstrap.log" 2>&1 || {
    tail -20 "$target.debootstrap.log" >&2
    fail "debootstrap"
}
rm -f "$target.debootstrap.log"
say "debootstrap done: $(du -sm "$target" | cut -f1) MB"

cat >"$target/etc/apt/sources.list" <<EOF
deb $mirror bookworm main
deb $mirror bookworm-updates main
deb ${mirror%/debian}/debian-security bookworm-security main
EOF
cp /etc/resolv.conf "$target/etc/resolv.conf"
# Nothing inside starts services.
printf '#!/bin/sh\nexit 101\n' >"$target/usr/sbin/policy-rc.d"
chmod +x "$target/usr/sbin/policy-rc.d"
mount -t proc proc "$target/proc" && mounted+=("$target/proc")
mount --rbind /dev "$target/dev" && mounted+=("$target/dev")
mount -t tmpfs tmpfs "$target/run" && mounted+=("$target/run")

inside() { chroot "$target" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
apt_install() {
    inside apt-get install -y -q --no-install-recommends "$@" >"$target/tmp/apt.log" 2>&1 || {
        tail -30 "$target/tmp/apt.log" >&2
        fail "apt-get install $*"
    }
}

inside apt-get update -q >"$target/tmp/apt.log" 2>&1 || {
    tail -20 "$target/tmp/apt.log" >&2
    fail "apt-get update"
}
cp "$deb" "$target/tmp/"
apt_install "/tmp/$(basename "$deb")"
say "installed $(basename "$deb") with apt: $(grep -Eo '[0-9]+ newly installed' "$target/tmp/apt.log")"
inside dpkg-query -W -f='${Installed-Size} KiB installed, Depends: ${Depends}\n' corvane >&2

# An ordinary user with a home of their own, and no display.
inside useradd --create-home --uid 4242 tester
as_tester() {
    chroot --userspec=4242:4242 "$target" env -i PATH=/usr/bin:/bin HOME=/home/tester LANG=C.UTF-8 \
        XDG_RUNTIME_DIR=/tmp/tester-runtime "$@"
}
as_tester mkdir -m 700 -p /tmp/tester-runtime

# Runs the demo headless until its first event, then stops it with SIGTERM;
# the output goes to the named file inside the chroot.
cat >"$target/usr/local/bin/run-demo" <<'EOF'
#!/bin/sh
log=$1
corvane --headless /usr/share/corvane/examples/demo.corv >"$log" 2>&1 &
pid=$!
i=0
while [ $i -lt 150 ] && ! grep -q '^count: 1$' "$log"; do
    kill -0 $pid 2>/dev/null || break
    sleep 0.1
    i=$((i + 1))
done
kill -TERM $pid 2>/dev/null
wait $pid
EOF
chmod +x "$target/usr/local/bin/run-demo"

# Checks that the log inside the chroot has each line.
expect_lines() {
    local log="$target$1" line
    shift
    for line in "$@"; do
        grep -qF "$line" "$log" || {
            sed 's/^/    /' "$log" >&2
            fail "no line \"$line\""
        }
    done
    if grep -E 'Failed to load plugin|locale: .* = \?\?|Couldn.t find locale file|Unknown node' "$log" >&2; then
        fail "warnings above"
    fi
}

# --- The installed program on the installed demo -----------------------------

run_started=$SECONDS
as_tester /usr/local/bin/run-demo /tmp/first.log || {
    sed 's/^/    /' "$target/tmp/first.log" >&2
    fail "corvane --headless did not exit with 0"
}
expect_lines /tmp/first.log \
    "Found plugin in /usr/lib/corvane/plugins/io.marrowfield.example" \
    "io.marrowfield.example registered node io.marrowfield.example.tag" \
    "Opened project /usr/share/corvane/examples/demo.corv" \
    "count: 1" \
    "Shutting down with exit code 0, call again soon!"
say "corvane --headless ran the demo to its first event and stopped on SIGTERM in $((SECONDS - run_started)) s"

# --- The example plugin, built against the installed SDK ---------------------

apt_install cmake make gcc libc6-dev
say "installed cmake, make and gcc"
# The plugin author's commands of the README.
as_tester sh -c '
    set -e
    cp -r /usr/share/corvane/examples/plugins/example "$HOME/my-nodes"
    cmake -S "$HOME/my-nodes" -B "$HOME/my-nodes/build" -DPLUGIN_ID=com.example.outside \
        -DCORVANE_PLUGIN_INSTALL_DIR="$HOME/.local/share/Corvane/plugins"
    cmake --build "$HOME/my-nodes/build"
    cmake --install "$HOME/my-nodes/build"
' >"$target/tmp/plugin.log" 2>&1 || {
    sed 's/^/    /' "$target/tmp/plugin.log" >&2
    fail "building the example plugin"
}
grep -q '^CorvaneSDK_DIR:PATH=/usr/lib/cmake/CorvaneSDK$' "$target/home/tester/my-nodes/build/CMakeCache.txt" ||
    fail "the SDK was not found in /usr/lib/cmake/CorvaneSDK"
as_tester /usr/local/bin/run-demo /tmp/second.log || fail "the second run did not exit with 0"
expect_lines /tmp/second.log \
    "Found plugin in /home/tester/.local/share/Corvane/plugins/com.example.outside" \
    "com.example.outside registered node com.example.outside.tag" \
    "com.example.outside registered node com.example.outside.repeat" \
    "io.marrowfield.example registered node io.marrowfield.example.tag" \
    "count: 1" \
    "Shutting down with exit code 0, call again soon!"
say "the example plugin built in the chroot against the installed SDK loads"

# --- The systemd user unit -----------------------------------------------------

apt_install systemd
unit_dir=/home/tester/.config/systemd/user
instance="corvane-headless@$(inside systemd-escape --path /usr/share/corvane/examples/demo.corv).service"
as_tester mkdir -p "$unit_dir"
as_tester cp /usr/share/corvane/examples/corvane-headless@.service "$unit_dir/$instance"
as_tester systemd-analyze --user verify "$unit_dir/$instance" >"$target/tmp/unit.log" 2>&1 || true
if [[ -s $target/tmp/unit.log ]]; then
    sed 's/^/    /' "$target/tmp/unit.log" >&2
    fail "systemd-analyze verify $instance"
fi
say "systemd-analyze verify $instance: clean"

say "ok"
