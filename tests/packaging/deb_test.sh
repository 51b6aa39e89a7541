#!/usr/bin/env bash
# cpack -G DEB, then the package as a user gets it: its name, version and
# the dependencies dpkg-shlibdeps found, and, unpacked with dpkg-deb -x into
# a scratch folder (nothing is installed on this machine), implvm running
# from there on the demo Mac.
#
#   deb_test.sh CPACK BUILD_DIR SOURCE_DIR VERSION
set -euo pipefail
cpack=$1 build=$2 source=$3 version=$4
. "$(dirname "$0")/testlib.sh"

scratch=$(mktemp -d "${TMPDIR:-/tmp}/implvm-deb.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
if ! "$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$scratch/out" >"$scratch/cpack.log" 2>&1; then
    cat "$scratch/cpack.log" >&2
    fail "cpack -G DEB failed"
    finish
fi
debs=("$scratch"/out/*.deb)
[[ ${#debs[@]} == 1 && -f ${debs[0]} ]] || fail "cpack made ${#debs[@]} packages: ${debs[*]}"
deb=${debs[0]}

[[ $(dpkg-deb -f "$deb" Package) == implvm ]] || fail "package name: $(dpkg-deb -f "$deb" Package)"
[[ $(dpkg-deb -f "$deb" Version) == "$version" ]] || fail "package version: $(dpkg-deb -f "$deb" Version)"
depends=$(dpkg-deb -f "$deb" Depends)
for package in libplist libstdc++6 libc6; do
    [[ $depends == *"$package"* ]] || fail "Depends lacks $package: '$depends'"
done
# CoreUtils travels inside the package; no package provides it.
[[ $depends != *CoreUtils* && $depends != *implvm* ]] || fail "Depends names a library of its own: '$depends'"

root=$scratch/root
dpkg-deb -x "$deb" "$root"
for file in usr/bin/implvm usr/lib/implvm/libImplVirtualMachine.so usr/lib/implvm/libCoreUtils.so.1 \
    usr/share/man/man1/implvm.1 usr/share/bash-completion/completions/implvm \
    usr/include/ImplVirtualMachine.h usr/lib/cmake/ImplVirtualMachine/ImplVirtualMachineConfig.cmake \
    usr/lib/pkgconfig/ImplVirtualMachine.pc usr/share/doc/implvm/LICENSE; do
    [[ -e $root/$file ]] || fail "the package lacks /$file"
done
named=$(files_naming "$root" "$build")
[[ -z $named ]] || fail "packaged files name the build folder: $named"

implvm=$root/usr/bin/implvm
# Once implvm --version is everywhere, the --help branch goes.
if "$implvm" --help 2>/dev/null | grep -q -- '--version'; then
    output=$("$implvm" --version 2>&1) || fail "the unpacked implvm --version failed: $output"
    [[ $output == *"$version"* ]] || fail "the unpacked implvm --version says '$output', not $version"
else
    output=$("$implvm" --help 2>&1) || fail "the unpacked implvm --help failed: $output"
fi
check_demo_inventory "$implvm" "$source" "$scratch/mac"

finish
