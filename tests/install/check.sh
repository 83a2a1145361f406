#!/bin/bash
# SPDX-License-Identifier: BSD-3-Clause
# The checks of an installed tree, one a call: check.sh VERB ARGUMENTS..., run by ctest, which sets the variables.
# Exit status 77 says, with a reason on standard output, that this machine or build cannot make the check.
set -euo pipefail

# Two installed trees: one where it was installed to, and one that was moved afterwards.
first=$CVNC_STAGE/first
moved=$CVNC_STAGE/moved
beforeMoving=$CVNC_STAGE/before-moving

here=$(cd "$(dirname "$0")" && pwd)
warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror)

skip() { echo "skipped: $*"; exit 77; }
fail() { echo "FAILED: $*" >&2; exit 1; }

# An empty directory of this check alone, removed at the end. Its name is always the same, so that a compiler cache
# knows the files again.
scratch() {
    work=${CVNC_STAGE%/*}/work.$1
    rm -rf "$work"
    mkdir -p "$work"
    trap 'rm -rf "$work"' EXIT
}

need_compiler() { command -v "$1" >/dev/null || skip "$1 is not installed"; }

# Configures with the compiler and its launcher of the surrounding build: configure SOURCE BUILD OPTIONS...
configure() {
    local source=$1 build=$2
    shift 2
    cmake -S "$source" -B "$build" -G Ninja "-DCMAKE_CXX_COMPILER_LAUNCHER=$CVNC_CXX_LAUNCHER" "$@"
}

install_trees() {
    rm -rf "$CVNC_STAGE"
    cmake --install "$CVNC_BUILD_DIR" --prefix "$first" >/dev/null
    cmake --install "$CVNC_BUILD_DIR" --prefix "$beforeMoving" >/dev/null
    mv "$beforeMoving" "$moved"
}

# A header of the source tree that says "Not installed" is internal; every other one is part of the product.
installed_headers() {
    local component header installed count=0
    for component in libsrc/cvNetworkCompatibility companion/cvutil; do
        for header in "$CVNC_SOURCE_DIR/$component"/*.h; do
            installed=$first/include/$(basename "$component")/$(basename "$header")
            if grep -q '^// Not installed' "$header"; then
                [ ! -e "$installed" ] || fail "internal header installed: $installed"
            else
                cmp "$header" "$installed"
                count=$((count + 1))
            fi
        done
    done
    [ "$count" -ge 11 ] || fail "only $count public headers found"
    [ "$(find "$first/include" -type f | wc -l)" -eq "$count" ] || fail "more than the public headers is installed"
    for header in cvSetting.h cvDisHeader.h; do
        [ -z "$(find "$first" -name "$header")" ] || fail "$header is installed"
    done
}

no_build_path() {
    local library path
    case $CVNC_BUILD_TYPE in Release | MinSizeRel) ;; *) skip "a build with debug information names directories" ;; esac
    for library in "$first/$CVNC_LIBDIR"/lib*.so.54; do
        for path in "$CVNC_SOURCE_DIR" "$CVNC_BUILD_DIR" "$CVNC_STAGE"; do
            ! grep -qaF "$path" "$library" || fail "$library holds $path"
        done
    done
}

# README's first program says what a newcomer must know, compiles as README says, and works. Its port is a fixed
# one, so it runs in a network of its own.
readme_program() {
    local said wanted flags
    scratch readme
    sed -n '/^```cpp/,/^```$/p' "$CVNC_SOURCE_DIR/README.md" | sed '/^```/d' >"$work/first.cpp"
    for wanted in 'initErrorAction = 1' 'isOk()' 'block by default'; do
        grep -qF "$wanted" "$work/first.cpp" || fail "README's first program lacks: $wanted"
    done
    export PKG_CONFIG_LIBDIR=$first/$CVNC_LIBDIR/pkgconfig
    read -ra flags < <(pkg-config --cflags --libs cvNetworkCompatibility)
    "$CVNC_CXX" "${warnings[@]}" "$work/first.cpp" "${flags[@]}" "-Wl,-rpath,$first/$CVNC_LIBDIR" -o "$work/first"
    unshare -rn true 2>/dev/null || skip "no network namespace to run it in"
    said=$(unshare -rn sh -c 'ip link set lo up && exec timeout 60 "$0"' "$work/first" 2>/dev/null)
    [ "$said" = "144 bytes, PDU type 1" ] || fail "README's first program says: $said"
}

# Runs a built consumer the way a user does: nothing tells the loader where the libraries are but the program.
run_consumer() { env -u LD_LIBRARY_PATH "$1"; }

configure_consumer() {  # TREE MAJOR_VERSION CMAKE_OPTIONS...
    local tree=$1 version=$2
    shift 2
    configure "$here/consumer" "$work/build" -DCMAKE_BUILD_TYPE=Release "-DWANTED_VERSION=$version" \
        "-DCMAKE_PREFIX_PATH=$CVNC_STAGE/$tree" "$@"
}

# Whatever was found must have been found in TREE: no_other_tree TREE FILES_AND_DIRECTORIES...
no_other_tree() {
    local tree=$1 other
    shift
    for other in "$first" "$moved" "$beforeMoving"; do
        [ "$other" != "$CVNC_STAGE/$tree" ] || continue
        ! grep -rF "$other/" "$@" || fail "$other is used instead of $tree"
    done
}

consumer_by_cmake() {
    local tree=$1 compiler=$2
    need_compiler "$compiler"
    scratch "cmake.$tree.$compiler"
    configure_consumer "$tree" 54 "-DCMAKE_CXX_COMPILER=$compiler"
    cmake --build "$work/build"
    no_other_tree "$tree" "$work/build"
    run_consumer "$work/build/consumer"
    run_consumer "$work/build/consumer_as_needed"
}

other_version_refused() {
    scratch other-version
    local version
    for version in 53 55; do
        ! configure_consumer first "$version" "-DCMAKE_CXX_COMPILER=$CVNC_CXX" >"$work/log" 2>&1 ||
            fail "version $version was found"
        grep -q "requested version \"$version\"" "$work/log" || { cat "$work/log"; fail "another error than the version"; }
        rm -rf "$work/build"
    done
}

consumer_by_pkg_config() {
    local tree=$1 compiler=$2
    need_compiler "$compiler"
    need_compiler pkg-config
    scratch "pkg-config.$tree.$compiler"
    export PKG_CONFIG_LIBDIR=$CVNC_STAGE/$tree/$CVNC_LIBDIR/pkgconfig
    unset PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR
    [ "$(pkg-config --modversion cvNetworkCompatibility)" = 54.0.0 ] || fail "version of cvNetworkCompatibility"
    [ "$(pkg-config --modversion cvutil)" = 54.0.0 ] || fail "version of cvutil"

    local flags libdir variant
    pkg-config --cflags --libs cvNetworkCompatibility >"$work/flags"
    pkg-config --print-requires cvNetworkCompatibility | grep -q '^cvutil' || fail "cvutil is not required"
    libdir=$(pkg-config --variable=libdir cvNetworkCompatibility)
    no_other_tree "$tree" "$work/flags"
    read -ra flags <"$work/flags"
    for variant in --no-as-needed --as-needed; do
        "$compiler" -std=c++11 "${warnings[@]}" "$here/consumer/consumer.cpp" -o "$work/consumer" \
            "-Wl,$variant" "${flags[@]}" "-Wl,-rpath,$libdir"
        run_consumer "$work/consumer"
    done
}

# A unit: what the system's own tools say of it, with the path of this program (verify wants one that exists).
service_is_sound() {  # UNIT PROGRAM
    local unit=$moved/lib/systemd/system/$1@.service program=$2
    [ -n "$CVNC_TOOLS" ] || skip "this build has no tools"
    [ -f "$unit" ] || fail "no $unit"
    command -v systemd-analyze >/dev/null || skip "systemd-analyze is not installed"
    scratch "service.$1"
    grep -q "^ExecStart=$program " "$unit" || fail "the unit starts something else"
    # systemd's default gives up for good after five starts within ten seconds.
    grep -qx 'StartLimitIntervalSec=0' "$unit" || [ "$(sed -n 's/^RestartSec=//p' "$unit")" -gt 2 ] ||
        fail "a port that is taken for a few seconds ends it for good"
    sed "s|^ExecStart=$program |ExecStart=$moved/bin/$program |" "$unit" >"$work/$1@.service"
    cp "$work/$1@.service" "$work/$1@3000.service"
    MANPATH=$moved/share/man systemd-analyze verify "$work/$1@3000.service" >"$work/said" 2>&1 || fail "$(cat "$work/said")"
    [ ! -s "$work/said" ] || fail "$(cat "$work/said")"
    # 0 is the best exposure, 100 (10.0) the worst.
    systemd-analyze security --offline=true --threshold="$3" "$work/$1@.service" >"$work/said" 2>&1 ||
        fail "$(tail -n 1 "$work/said")"
}

# What a packet server that shares System V IPC and /tmp with its clients must not have switched on.
packet_server_shares_with_clients() {
    local unit=$moved/lib/systemd/system/cvpacketserver@.service forbidden
    [ -n "$CVNC_TOOLS" ] || skip "this build has no tools"
    grep -qx 'PrivateTmp=no' "$unit" || fail "PrivateTmp= is not switched off"
    for forbidden in PrivateIPC= DynamicUser= PrivateNetwork= PrivateUsers= InaccessiblePaths=; do
        ! grep -q "^$forbidden" "$unit" || fail "the unit sets $forbidden"
    done
}

# The user and the directory that the unit names are those that these files make.
packet_server_has_user_and_directory() {
    [ -n "$CVNC_TOOLS" ] || skip "this build has no tools"
    local user root
    user=$(sed -n 's/^User=//p' "$moved/lib/systemd/system/cvpacketserver@.service")
    command -v systemd-sysusers >/dev/null || skip "systemd-sysusers is not installed"
    scratch packet-server
    root=$work/root
    mkdir -p "$root/etc" "$root/run"
    systemd-sysusers --root="$root" - <"$moved/lib/sysusers.d/cvpacketserver.conf"
    grep -q "^$user:" "$root/etc/passwd" || fail "no user $user"
    grep -q "^$user:" "$root/etc/group" || fail "no group $user"
    [ "$(id -u)" -eq 0 ] || skip "the directory's owner takes root"
    systemd-tmpfiles --root="$root" --create - <"$moved/lib/tmpfiles.d/cvpacketserver.conf"
    [ "$(stat -c %a "$root/run/cvpacketserver")" = 755 ] || fail "mode of the directory"
    [ "$(stat -c %u "$root/run/cvpacketserver")" = "$(sed -n "s/^$user:[^:]*:\([0-9]*\):.*/\1/p" "$root/etc/passwd")" ] ||
        fail "owner of the directory"
}

# The manual page renders without a complaint and tells every option that the program knows, and no other.
manual_tells_every_option() {
    [ -n "$CVNC_TOOLS" ] || skip "this build has no tools"
    local page=$moved/share/man/man1/cvpacketserver.1
    [ -f "$page" ] || fail "no $page"
    command -v man >/dev/null || skip "man is not installed"
    scratch manual
    MANWIDTH=100 LC_ALL=C.UTF-8 man --warnings -l "$page" >"$work/page" 2>"$work/said" || fail "$(cat "$work/said")"
    [ ! -s "$work/said" ] || fail "$(cat "$work/said")"
    [ -s "$work/page" ] || skip "man renders nothing here"
    col -bx <"$work/page" | grep -oE -- '--[a-z-]+' | sort -u | grep -v -- '--server' >"$work/told"
    "$moved/bin/cvpacketserver" --help | grep -oE -- '^ +(-h,)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort -u >"$work/known"
    diff "$work/known" "$work/told" || fail "options known (<) and told (>) differ"
}

# The installed programs start as they lie there.
tool_starts() {
    [ -n "$CVNC_TOOLS" ] || skip "this build has no tools"
    local tree
    for tree in "$first" "$moved"; do
        env -u LD_LIBRARY_PATH "$tree/bin/cvnet" --version
        env -u LD_LIBRARY_PATH "$tree/bin/cvpacketserver" --version
    done
}

# Each header as the first of its file, and once more, for its guard.
headers_alone() {
    local compiler=$1 standard=$2 header
    need_compiler "$compiler"
    scratch "headers.$compiler.$standard"
    (cd "$first/include" && find . -name '*.h' | sed 's,^\./,,') >"$work/headers"
    [ -s "$work/headers" ] || fail "no headers installed"
    while read -r header; do
        printf '#include <%s>\n#include <%s>\n' "$header" "$header" >"$work/${header//\//_}.cpp"
    done <"$work/headers"
    "$compiler" "-std=c++$standard" "${warnings[@]}" -fsyntax-only "-I$first/include" "$work"/*.cpp
    echo "$(wc -l <"$work/headers") headers"
}

least_includes() {
    need_compiler "$1"
    scratch "least.$1"
    (cd "$first/include" && find . -name '*.h' | sed 's,^\./\(.*\),#include <\1>,') >"$work/all_headers.h"
    "$1" -std=c++11 "${warnings[@]}" -fsyntax-only "-I$first/include" "-I$work" "$here/least_includes.cpp"
}

library_without_companion_sources() {
    scratch library
    local entry
    mkdir "$work/source"
    for entry in CMakeLists.txt cmake libsrc LICENSE README.md CHANGELOG.md packaging packetserver tools examples; do
        [ ! -e "$CVNC_SOURCE_DIR/$entry" ] || cp -r "$CVNC_SOURCE_DIR/$entry" "$work/source/"
    done
    configure "$work/source" "$work/build" -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_COMPILER=$CVNC_CXX" \
        "-DCVUTIL_ROOT=$first" -DBUILD_TESTING=OFF -DCVNC_BUILD_BENCH=OFF
    cmake --build "$work/build" --target cvNetworkCompatibility
    readelf -d "$work/build/libsrc/cvNetworkCompatibility/libcvNetworkCompatibility.so" | grep -F '[libcvutil.so.54]'
}

companion_alone() {
    scratch companion
    cp -r "$CVNC_SOURCE_DIR/companion/cvutil" "$work/"
    configure "$work/cvutil" "$work/build" -DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_COMPILER=$CVNC_CXX"
    cmake --build "$work/build" --target all cvutil_tests_shared cvutil_tests_static
    cmake --install "$work/build" --prefix "$work/installed" >/dev/null
    [ -e "$work/installed/$CVNC_LIBDIR/libcvutil.so.54" ] || fail "no library installed"
    [ -e "$work/installed/include/cvutil/cvList.h" ] || fail "no headers installed"
}

[ -z "$CVNC_SANITIZER" ] || skip "a $CVNC_SANITIZER sanitizer build is not what users install"
"$@"
