#!/usr/bin/env bash
# Builds the Debian packages from a build tree and checks what a node and a developer get: the
# library package libklnetbase10, the runtime package klnetbase and the development package
# klnetbase-dev with their contents split between them, libraries in the multiarch directory,
# copyright and changelog, the configuration and options files as conffiles, the unit reading
# them, the maintainer scripts, binaries without a run path and built hardened (hardening-check),
# the pkg-config files, programs that run from the unpacked tree alone, and lintian's verdict: no
# error and no warning. Then installs the build tree into a scratch prefix and checks that its
# programs run from there without LD_LIBRARY_PATH.
#   packageTest.sh BUILD_DIR WORK_DIR
# Exit status 77 (skipped) without dpkg-deb, dpkg-shlibdeps, dpkg-architecture, lintian or
# hardening-check.
set -euo pipefail

build=$1
work=$2
for tool in dpkg-deb dpkg-shlibdeps dpkg-architecture cpack pkg-config lintian hardening-check; do
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
[[ $(cd "$work/out" && ls ./*.deb | tr '\n' ' ') == "./klnetbase-dev_10.0_amd64.deb ./klnetbase_10.0_amd64.deb ./libklnetbase10_10.0_amd64.deb " ]] ||
    fail "packages: $(ls "$work/out")"
libs=$work/out/libklnetbase10_10.0_amd64.deb
rt=$work/out/klnetbase_10.0_amd64.deb
dev=$work/out/klnetbase-dev_10.0_amd64.deb
for deb in "$libs" "$rt" "$dev"; do
    dpkg-deb --info "$deb" >/dev/null || fail "dpkg-deb --info $(basename "$deb")"
done
arch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
lib=usr/lib/$arch

field() { dpkg-deb -f "$1" "$2"; }
[[ $(field "$libs" Package) == libklnetbase10 && $(field "$rt" Package) == klnetbase &&
    $(field "$dev" Package) == klnetbase-dev ]] ||
    fail "Package: $(field "$libs" Package), $(field "$rt" Package), $(field "$dev" Package)"
# The maintainer is the build's setting (KLNETBASE_MAINTAINER), in every package and changelog.
maintainer=$(sed -n 's/^KLNETBASE_MAINTAINER:STRING=//p' "$build/CMakeCache.txt")
for deb in "$libs" "$rt" "$dev"; do
    [[ $(field "$deb" Version) == 10.0 ]] || fail "Version: $(field "$deb" Version)"
    [[ -n $maintainer && $(field "$deb" Maintainer) == "$maintainer" ]] ||
        fail "Maintainer: $(field "$deb" Maintainer), not '$maintainer'"
done
# Found by dpkg-shlibdeps from what the binaries link: Qt's among the programs', the codecs'
# libraries among the libraries'.
for dependency in libc6 libstdc++6 libtbb12 libqt5core5a libpng16-16; do
    [[ ", $(field "$rt" Depends)," == *", $dependency "* ]] ||
        fail "Depends lacks $dependency: $(field "$rt" Depends)"
done
for dependency in libc6 libstdc++6 libtbb12 liblz4-1 libzstd1 libsodium23; do
    [[ ", $(field "$libs" Depends)," == *", $dependency "* ]] ||
        fail "libklnetbase10 Depends lacks $dependency: $(field "$libs" Depends)"
done
for deb in "$rt" "$dev"; do
    [[ ", $(field "$deb" Depends)," == *", libklnetbase10 (= 10.0),"* ]] ||
        fail "$(field "$deb" Package) Depends: $(field "$deb" Depends)"
done

# The split: every file of each package matches what that package is for, and nothing else.
contents() { dpkg-deb --fsys-tarfile "$1" | tar -t | sed -n 's|^\./||; /[^/]$/p'; }
contents "$libs" >"$work/libs.txt"
contents "$rt" >"$work/runtime.txt"
contents "$dev" >"$work/dev.txt"
stray=$(grep -vE "^($lib/lib[A-Za-z]+\.so\.[0-9.]+|usr/share/doc/libklnetbase10/(copyright|changelog\.gz)|usr/share/lintian/overrides/libklnetbase10)$" \
    "$work/libs.txt") && fail "in libklnetbase10: $stray"
stray=$(grep -vE "^(usr/bin/(KALDClusterService|KALDClusterServer|klnetctl|klClusterRender)|usr/lib/systemd/system/KALDClusterService\.service|etc/default/klnetbase|etc/klnetbase/service\.conf|usr/share/doc/klnetbase/(copyright|changelog\.gz)|usr/share/lintian/overrides/klnetbase|usr/share/man/man[1-8]/[^/]+\.gz|usr/share/bash-completion/completions/[^/]+)$" \
    "$work/runtime.txt") && fail "in klnetbase: $stray"
stray=$(grep -vE "^(usr/include/klNetBase/.+\.h|$lib/cmake/klNetBase/[^/]+\.cmake|$lib/pkgconfig/klNetBase(Codecs)?\.pc|$lib/lib[A-Za-z]+\.so|usr/share/doc/klnetbase-dev/(copyright|changelog\.gz))$" \
    "$work/dev.txt") && fail "in klnetbase-dev: $stray"
for path in "$lib/libklNetBase.so.10" "$lib/libklNetBaseCodecs.so.10" \
    usr/share/doc/libklnetbase10/copyright usr/share/doc/libklnetbase10/changelog.gz; do
    grep -qxF "$path" "$work/libs.txt" || fail "libklnetbase10 lacks $path"
done
for path in usr/bin/KALDClusterService usr/bin/KALDClusterServer usr/bin/klnetctl \
    usr/bin/klClusterRender usr/lib/systemd/system/KALDClusterService.service \
    etc/default/klnetbase etc/klnetbase/service.conf usr/share/doc/klnetbase/copyright \
    usr/share/doc/klnetbase/changelog.gz; do
    grep -qxF "$path" "$work/runtime.txt" || fail "klnetbase lacks $path"
done
for path in usr/include/klNetBase/klNetBase.h usr/include/klNetBase/codecs/klNetCodecs.h \
    "$lib/libklNetBase.so" "$lib/libklNetBaseCodecs.so" "$lib/pkgconfig/klNetBase.pc" \
    "$lib/pkgconfig/klNetBaseCodecs.pc" "$lib/cmake/klNetBase/klNetBaseConfig.cmake" \
    "$lib/cmake/klNetBase/klNetBaseTargets.cmake" \
    "$lib/cmake/klNetBase/klNetBaseCodecsTargets.cmake" \
    usr/share/doc/klnetbase-dev/copyright usr/share/doc/klnetbase-dev/changelog.gz; do
    grep -qxF "$path" "$work/dev.txt" || fail "klnetbase-dev lacks $path"
done

# A node with every package: the unversioned links of -dev end at the libraries.
root=$work/root
for deb in "$libs" "$rt" "$dev"; do
    dpkg-deb -x "$deb" "$root"
done
for link in "$root/$lib"/lib*.so; do
    [[ -L $link && -f $link ]] || fail "$link is not a link to a library"
done
for doc in libklnetbase10 klnetbase klnetbase-dev; do
    head -n 1 "$root/usr/share/doc/$doc/copyright" |
        grep -qx "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/" ||
        fail "$doc/copyright is not in the machine-readable format"
    zcat "$root/usr/share/doc/$doc/changelog.gz" | head -n 1 |
        grep -q "^klnetbase (10.0) " || fail "$doc/changelog.gz does not start at 10.0"
done

# Manual pages and completions, when the build installs any (see the prefix installation at the
# end): a page for each program, compressed, and every completion, all in the runtime package.
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
    fail "cmake --install: $(tail -n 20 "$work/install.log")"
if [[ -d $prefix/share/man ]]; then
    for program in KALDClusterService KALDClusterServer klnetctl klClusterRender; do
        grep -qx "usr/share/man/man1/$program\.1\.gz" "$work/runtime.txt" ||
            fail "no manual page for $program in klnetbase"
    done
fi
for completion in "$prefix"/share/bash-completion/completions/*; do
    [[ -e $completion ]] || continue
    grep -qx "usr/share/bash-completion/completions/${completion##*/}" "$work/runtime.txt" ||
        fail "klnetbase lacks the completion ${completion##*/}"
done

# The service: configuration and options from the conffiles, maintainer scripts that parse.
control=$work/control
dpkg-deb -e "$rt" "$control"
[[ $(cat "$control/conffiles") == $'/etc/default/klnetbase\n/etc/klnetbase/service.conf' ]] ||
    fail "conffiles: $(cat "$control/conffiles")"
(. "$root/etc/default/klnetbase" && [[ $KLNETBASE_OPTIONS == --no-console ]]) ||
    fail "/etc/default/klnetbase does not set KLNETBASE_OPTIONS=--no-console"
unit=$root/usr/lib/systemd/system/KALDClusterService.service
grep -qx "EnvironmentFile=-/etc/default/klnetbase" "$unit" ||
    fail "unit: $(grep EnvironmentFile "$unit")"
grep -qx 'ExecStart=/usr/bin/KALDClusterService --config /etc/klnetbase/service.conf $KLNETBASE_OPTIONS' \
    "$unit" || fail "unit: $(grep ExecStart "$unit")"
for script in postinst prerm postrm; do
    [[ -x $control/$script ]] || fail "no executable $script"
    sh -n "$control/$script" || fail "$script does not parse"
done
grep -qx "Documentation=man:KALDClusterService(1) man:klnetctl(1)" "$unit" ||
    fail "unit: $(grep Documentation "$unit")"
# An upgrade restarts a running service through deb-systemd-invoke: a SIGTERM, so a drain.
grep -q 'deb-systemd-invoke try-restart "$unit"' "$control/postinst" ||
    fail "postinst does not restart the service on an upgrade"
dpkg-deb -e "$libs" "$work/libs-control"
grep -qx "activate-noawait ldconfig" "$work/libs-control/triggers" || fail "no ldconfig trigger"
grep -qx "libklNetBase 10 libklnetbase10 (>= 10.0)" "$work/libs-control/shlibs" ||
    fail "shlibs: $(cat "$work/libs-control/shlibs")"

# lintian, pedantic: no error, no warning. Its information tags are answered by an override with
# the reason where they are not fixed; any that are left are shown.
lintian -I --pedantic "$libs" "$rt" "$dev" >"$work/lintian.txt" 2>&1 || true
if grep -E '^[EW]: ' "$work/lintian.txt"; then
    fail "lintian reports errors or warnings (above)"
fi
grep -vE '^(N: |$)' "$work/lintian.txt" || true

# Built with Debian's hardening flags: stack protector, _FORTIFY_SOURCE, RELRO, BIND_NOW, PIE.
# Control-flow protection (-fcf-protection) is not among the flags of Debian 12's dpkg-buildflags;
# stack clash protection, not among them either, is reported but not counted by hardening-check.
for binary in "$root"/usr/bin/* "$root/$lib"/lib*.so.*.*; do
    hardening-check --nocfprotection "$binary" >"$work/hardening.txt" 2>&1 ||
        fail "$(cat "$work/hardening.txt")"
done

# No run path in the packages (Debian policy): the programs find the libraries in the system's
# library directory, not in the build tree or beside themselves.
for binary in "$root"/usr/bin/* "$root/$lib"/lib*.so.*.*; do
    if readelf -d "$binary" | grep -E '\((RUNPATH|RPATH)\)'; then
        fail "$binary carries a run path"
    fi
done
version=$(LD_LIBRARY_PATH=$root/$lib "$root/usr/bin/KALDClusterService" --version) ||
    fail "the unpacked KALDClusterService does not run"
[[ $version == "KALDClusterService 10.0" ]] || fail "--version: $version"

# The pkg-config files: the system's prefix in canonical form, and no language standard forced
# on the applications. The codecs' file brings the core library along, after it as the linker
# needs, both from the unpacked tree.
for pc in "$root/$lib"/pkgconfig/*.pc; do
    grep -qx "prefix=/usr" "$pc" || fail "$pc: $(grep '^prefix=' "$pc")"
    ! grep -E -e '-std=|//|/\.\./' "$pc" || fail "$pc forces a standard or has a path not canonical"
done
flags=$(PKG_CONFIG_PATH=$root/$lib/pkgconfig pkg-config --define-variable=prefix="$root/usr" \
    --libs klNetBaseCodecs) || fail "pkg-config does not know klNetBaseCodecs"
[[ " $flags " == *" -L$root/"*" -lklNetBaseCodecs -lklNetBase "* ]] ||
    fail "pkg-config --libs klNetBaseCodecs: $flags"

# Installed under any other prefix (above), the programs find the installed library through their
# relative run path.
version=$(env -u LD_LIBRARY_PATH "$prefix/bin/KALDClusterService" --version) ||
    fail "the installed KALDClusterService does not run"
[[ $version == "KALDClusterService 10.0" ]] || fail "installed --version: $version"
env -u LD_LIBRARY_PATH ldd "$prefix/bin/KALDClusterService" |
    grep -F "libklNetBase.so.10 => $prefix/" >/dev/null || fail "KALDClusterService loads another library"
env -u LD_LIBRARY_PATH "$prefix/bin/klnetctl" --help >/dev/null ||
    fail "the installed klnetctl does not run"
echo "passed: $(basename "$rt") $(basename "$dev")"
