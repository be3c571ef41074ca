#!/usr/bin/env bash
# Builds the Debian packages from a build tree and checks what a node and a developer get: the
# runtime package klnetbase and the development package klnetbase-dev with their contents split
# between them, libraries in the multiarch directory, copyright and changelog, the options file as
# a conffile, the unit reading it, the maintainer scripts, binaries without a run path, the
# pkg-config files, and programs that run from the unpacked tree alone. Then installs the build
# tree into a scratch prefix and checks that its programs run from there without LD_LIBRARY_PATH.
#   packageTest.sh BUILD_DIR WORK_DIR
# Exit status 77 (skipped) without dpkg-deb, dpkg-shlibdeps or dpkg-architecture.
set -euo pipefail

build=$1
work=$2
for tool in dpkg-deb dpkg-shlibdeps dpkg-architecture cpack pkg-config; do
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
[[ $(cd "$work/out" && ls ./*.deb | tr '\n' ' ') == "./klnetbase-dev_10.0_amd64.deb ./klnetbase_10.0_amd64.deb " ]] ||
    fail "packages: $(ls "$work/out")"
rt=$work/out/klnetbase_10.0_amd64.deb
dev=$work/out/klnetbase-dev_10.0_amd64.deb
for deb in "$rt" "$dev"; do
    dpkg-deb --info "$deb" >/dev/null || fail "dpkg-deb --info $(basename "$deb")"
done
arch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
lib=usr/lib/$arch

field() { dpkg-deb -f "$1" "$2"; }
[[ $(field "$rt" Package) == klnetbase && $(field "$dev" Package) == klnetbase-dev ]] ||
    fail "Package: $(field "$rt" Package), $(field "$dev" Package)"
for deb in "$rt" "$dev"; do
    [[ $(field "$deb" Version) == 10.0 ]] || fail "Version: $(field "$deb" Version)"
    [[ $(field "$deb" Maintainer) == "klNetBase maintainers <klnetbase@localhost>" ]] ||
        fail "Maintainer: $(field "$deb" Maintainer)"
done
# Found by dpkg-shlibdeps from what the binaries link: the libraries' own and Qt's among them.
for dependency in libc6 libstdc++6 libtbb12 libqt5core5a libpng16-16 liblz4-1; do
    [[ ", $(field "$rt" Depends)," == *", $dependency "* ]] ||
        fail "Depends lacks $dependency: $(field "$rt" Depends)"
done
[[ ", $(field "$dev" Depends)," == *", klnetbase (= 10.0),"* ]] ||
    fail "klnetbase-dev Depends: $(field "$dev" Depends)"

# The split: every file of each package matches what that package is for, and nothing else.
contents() { dpkg-deb --fsys-tarfile "$1" | tar -t | sed -n 's|^\./||; /[^/]$/p'; }
contents "$rt" >"$work/runtime.txt"
contents "$dev" >"$work/dev.txt"
stray=$(grep -vE "^(usr/bin/(KALDClusterService|KALDClusterServer|klnetctl|klClusterRender)|$lib/lib[A-Za-z]+\.so\.[0-9.]+|usr/lib/systemd/system/KALDClusterService\.service|etc/default/klnetbase|usr/share/doc/klnetbase/(copyright|changelog\.Debian\.gz)|usr/share/man/man[1-8]/[^/]+\.gz|usr/share/bash-completion/completions/[^/]+)$" \
    "$work/runtime.txt") && fail "in klnetbase: $stray"
stray=$(grep -vE "^(usr/include/klNetBase/.+\.h|$lib/cmake/klNetBase/[^/]+\.cmake|$lib/pkgconfig/klNetBase(Codecs)?\.pc|$lib/lib[A-Za-z]+\.so|usr/share/doc/klnetbase-dev/(copyright|changelog\.Debian\.gz))$" \
    "$work/dev.txt") && fail "in klnetbase-dev: $stray"
for path in usr/bin/KALDClusterService usr/bin/KALDClusterServer usr/bin/klnetctl \
    usr/bin/klClusterRender "$lib/libklNetBase.so.10" "$lib/libklNetBaseCodecs.so.10" \
    usr/lib/systemd/system/KALDClusterService.service etc/default/klnetbase \
    usr/share/doc/klnetbase/copyright usr/share/doc/klnetbase/changelog.Debian.gz; do
    grep -qxF "$path" "$work/runtime.txt" || fail "klnetbase lacks $path"
done
for path in usr/include/klNetBase/klNetBase.h usr/include/klNetBase/codecs/klNetCodecs.h \
    "$lib/libklNetBase.so" "$lib/libklNetBaseCodecs.so" "$lib/pkgconfig/klNetBase.pc" \
    "$lib/pkgconfig/klNetBaseCodecs.pc" "$lib/cmake/klNetBase/klNetBaseConfig.cmake" \
    "$lib/cmake/klNetBase/klNetBaseTargets.cmake" \
    "$lib/cmake/klNetBase/klNetBaseCodecsTargets.cmake" \
    usr/share/doc/klnetbase-dev/copyright usr/share/doc/klnetbase-dev/changelog.Debian.gz; do
    grep -qxF "$path" "$work/dev.txt" || fail "klnetbase-dev lacks $path"
done

# A node with both packages: the unversioned links of -dev end at the libraries of the runtime.
root=$work/root
dpkg-deb -x "$rt" "$root"
dpkg-deb -x "$dev" "$root"
for link in "$root/$lib"/lib*.so; do
    [[ -L $link && -f $link ]] || fail "$link is not a link to a library"
done
for doc in klnetbase klnetbase-dev; do
    head -n 1 "$root/usr/share/doc/$doc/copyright" |
        grep -qx "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/" ||
        fail "$doc/copyright is not in the machine-readable format"
    zcat "$root/usr/share/doc/$doc/changelog.Debian.gz" | head -n 1 |
        grep -q "^klnetbase (10.0) " || fail "$doc/changelog.Debian.gz does not start at 10.0"
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

# The service: options from the conffile, maintainer scripts that parse.
control=$work/control
dpkg-deb -e "$rt" "$control"
[[ $(cat "$control/conffiles") == /etc/default/klnetbase ]] ||
    fail "conffiles: $(cat "$control/conffiles")"
(. "$root/etc/default/klnetbase" && [[ $KLNETBASE_OPTIONS == --no-console ]]) ||
    fail "/etc/default/klnetbase does not set KLNETBASE_OPTIONS=--no-console"
unit=$root/usr/lib/systemd/system/KALDClusterService.service
grep -qx "EnvironmentFile=-/etc/default/klnetbase" "$unit" ||
    fail "unit: $(grep EnvironmentFile "$unit")"
grep -qx 'ExecStart=/usr/bin/KALDClusterService $KLNETBASE_OPTIONS' "$unit" ||
    fail "unit: $(grep ExecStart "$unit")"
for script in postinst prerm postrm; do
    [[ -x $control/$script ]] || fail "no executable $script"
    sh -n "$control/$script" || fail "$script does not parse"
done
grep -qx "activate-noawait ldconfig" "$control/triggers" || fail "no ldconfig trigger"

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

# The codecs' pkg-config file brings the core library along, after it as the linker needs, both
# from the unpacked tree.
flags=$(PKG_CONFIG_PATH=$root/$lib/pkgconfig pkg-config --libs klNetBaseCodecs) ||
    fail "pkg-config does not know klNetBaseCodecs"
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
