#!/usr/bin/env bash
# Builds the Debian package from a build tree, unpacks it into a scratch root with dpkg -x and
# checks what a node gets: the layout, the unit's ExecStart, the control fields, binaries without a
# run path, and programs that run from the unpacked tree alone. Then installs the build tree into a
# scratch prefix and checks that its programs run from there without LD_LIBRARY_PATH.
#   packageTest.sh BUILD_DIR WORK_DIR
# Exit status 77 (skipped) without dpkg-deb or dpkg-shlibdeps.
set -euo pipefail

build=$1
work=$2
for tool in dpkg-deb dpkg-shlibdeps cpack; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool not found"; exit 77; }
done
rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >cpack.log 2>&1) ||
    fail "cpack: $(tail -n 20 "$work/cpack.log")"
deb=$(ls "$work"/out/klnetbase_10.0_*.deb 2>/dev/null) || fail "no package: $(ls "$work/out")"
dpkg-deb -x "$deb" "$work/root"
root=$work/root

field() { dpkg-deb -f "$deb" "$1"; }
[[ $(field Package) == klnetbase ]] || fail "Package: $(field Package)"
[[ $(field Version) == 10.0 ]] || fail "Version: $(field Version)"
[[ $(field Maintainer) == "klNetBase maintainers <klnetbase@localhost>" ]] ||
    fail "Maintainer: $(field Maintainer)"
# Found by dpkg-shlibdeps from what the binaries link: the library's own and Qt's among them.
for dependency in libc6 libstdc++6 libtbb12 libqt5core5a libpng16-16; do
    [[ ", $(field Depends)," == *", $dependency "* ]] ||
        fail "Depends lacks $dependency: $(field Depends)"
done

# Exactly the node's programs, nothing of the tests or benchmarks.
[[ $(ls "$root/usr/bin" | tr '\n' ' ') == "KALDClusterServer KALDClusterService klClusterRender klnetctl " ]] ||
    fail "programs: $(ls "$root/usr/bin" | tr '\n' ' ')"
for path in usr/include/klNetBase/klNetBase.h usr/include/klNetBase/send/klNetBalancedSender.h \
    usr/lib/libklNetBase.so.10 usr/lib/libklNetBase.so usr/lib/pkgconfig/klNetBase.pc \
    usr/lib/cmake/klNetBase/klNetBaseConfig.cmake \
    usr/lib/cmake/klNetBase/klNetBaseConfigVersion.cmake \
    usr/lib/cmake/klNetBase/klNetBaseTargets.cmake \
    usr/lib/systemd/system/KALDClusterService.service; do
    [[ -e $root/$path ]] || fail "missing $path"
done
grep -qx "ExecStart=/usr/bin/KALDClusterService --no-console" \
    "$root/usr/lib/systemd/system/KALDClusterService.service" ||
    fail "unit: $(grep ExecStart "$root/usr/lib/systemd/system/KALDClusterService.service")"

# No run path in the package (Debian policy): the programs find the library in /usr/lib, not in
# the build tree or beside themselves.
for binary in "$root"/usr/bin/* "$root"/usr/lib/lib*.so.*; do
    if readelf -d "$binary" | grep -E '\((RUNPATH|RPATH)\)'; then
        fail "$binary carries a run path"
    fi
done
version=$(LD_LIBRARY_PATH=$root/usr/lib "$root/usr/bin/KALDClusterService" --version) ||
    fail "the unpacked KALDClusterService does not run"
[[ $version == "KALDClusterService 10.0" ]] || fail "--version: $version"

# Installed under any other prefix, the programs find the installed library through their
# relative run path.
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
    fail "cmake --install: $(tail -n 20 "$work/install.log")"
version=$(env -u LD_LIBRARY_PATH "$prefix/bin/KALDClusterService" --version) ||
    fail "the installed KALDClusterService does not run"
[[ $version == "KALDClusterService 10.0" ]] || fail "installed --version: $version"
env -u LD_LIBRARY_PATH ldd "$prefix/bin/KALDClusterService" |
    grep -F "libklNetBase.so.10 => $prefix/" >/dev/null || fail "KALDClusterService loads another library"
env -u LD_LIBRARY_PATH "$prefix/bin/klnetctl" --help >/dev/null ||
    fail "the installed klnetctl does not run"
echo "passed: $(basename "$deb")"
