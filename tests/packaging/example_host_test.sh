#!/usr/bin/env bash
# Builds examples/host against an installed tree only, twice: with CMake
# (find_package(ImplVirtualMachine)) and with pkg-config, and runs both; each
# must load the installed module and print the version the module gives.
#
#   example_host_test.sh CMAKE GENERATOR CXX SOURCE_DIR PREFIX WORK_DIR
set -euo pipefail
cmake=$1 generator=$2 cxx=$3 source=$4 prefix=$5 work=$6
. "$(dirname "$0")/testlib.sh"

rm -rf "$work"
mkdir -p "$work"
call=$("$prefix/bin/implvm" call VirtualMachineImpl_Common_GetModuleVersion)
version=$(sed -n 's/^ *"outputs": "\(.*\)",$/\1/p' <<<"$call")
[[ -n $version ]] || fail "implvm gives no module version: $call"
expected="libImplVirtualMachine $version"

# CMake: nothing but the installed package is on the search path.
if "$cmake" -S "$source/examples/host" -B "$work/cmake" -G "$generator" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/configure.log" 2>&1 &&
    "$cmake" --build "$work/cmake" >"$work/build.log" 2>&1; then
    output=$("$work/cmake/example-host" 2>&1) || fail "example-host (CMake) failed: $output"
    [[ $output == "$expected" ]] || fail "example-host (CMake) printed '$output', expected '$expected'"
else
    fail "examples/host does not build with CMake: $(cat "$work/configure.log" "$work/build.log" 2>/dev/null)"
fi

# pkg-config, the way a host with another build system uses it.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
if flags=$(pkg-config --cflags --libs ImplVirtualMachine) &&
    module=$(pkg-config --variable=module ImplVirtualMachine); then
    read -ra flags <<<"$flags"
    if "$cxx" "-DIMPLVM_MODULE=\"$module\"" "$source/examples/host/main.cpp" "${flags[@]}" -ldl \
        -o "$work/pc-host" 2>"$work/pc-build.log"; then
        output=$("$work/pc-host" 2>&1) || fail "example-host (pkg-config) failed: $output"
        [[ $output == "$expected" ]] || fail "example-host (pkg-config) printed '$output', expected '$expected'"
    else
        fail "examples/host does not build with pkg-config: $(cat "$work/pc-build.log")"
    fi
else
    fail "pkg-config does not know ImplVirtualMachine in $PKG_CONFIG_PATH"
fi

finish
