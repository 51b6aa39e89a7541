#!/usr/bin/env bash
# cmake --install into a fresh prefix, then what a user of the installed tree
# relies on: the layout, no file naming the build folder or the prefix, the
# tree still working when moved elsewhere, and implvm(1) and the bash
# completion knowing every command that implvm's help lists.
#
#   installed_tree_test.sh CMAKE BUILD_DIR SOURCE_DIR PREFIX
# PREFIX is left in place for the tests that build against it.
set -euo pipefail
cmake=$1 build=$2 source=$3 prefix=$4
. "$(dirname "$0")/testlib.sh"

rm -rf "$prefix"
"$cmake" --install "$build" --prefix "$prefix" >/dev/null
scratch=$(mktemp -d "${TMPDIR:-/tmp}/implvm-installed.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

# ---- layout
for file in bin/implvm \
    lib/implvm/libImplVirtualMachine.so lib/implvm/libCoreUtils.so.1 lib/implvm/libCoreUtils.so \
    include/ImplVirtualMachine.h include/KALDO/typeProperty.h include/KALDO/CStringUtils.h \
    lib/cmake/ImplVirtualMachine/ImplVirtualMachineConfig.cmake \
    lib/cmake/ImplVirtualMachine/ImplVirtualMachineConfigVersion.cmake \
    lib/cmake/ImplVirtualMachine/ImplVirtualMachineTargets.cmake \
    lib/pkgconfig/ImplVirtualMachine.pc \
    share/man/man1/implvm.1 share/bash-completion/completions/implvm \
    share/doc/implvm/README.md share/doc/implvm/LICENSE share/doc/implvm/docs/implvm.md \
    share/doc/implvm/docs/install.md share/doc/implvm/examples/host/main.cpp; do
    [[ -e $prefix/$file ]] || fail "$file is not installed"
done
# Both libraries live only in the private folder.
stray=$(find "$prefix" -name 'lib*.so*' ! -path "$prefix/lib/implvm/*")
[[ -z $stray ]] || fail "libraries outside lib/implvm: $stray"
if command -v readelf >/dev/null; then
    soname=$(readelf -d "$prefix/lib/implvm/libCoreUtils.so.1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    [[ $soname == libCoreUtils.so.1 ]] || fail "libCoreUtils's SONAME is '$soname'"
    for binary in bin/implvm lib/implvm/libImplVirtualMachine.so; do
        runpath=$(readelf -d "$prefix/$binary" | sed -n 's/.*(R.*PATH).*\[\(.*\)\]/\1/p')
        [[ $runpath == '$ORIGIN'* ]] || fail "$binary's run path '$runpath' is not relative to it"
    done
fi

# ---- no absolute path of the build or of the installation itself
for path in "$build" "$prefix"; do
    named=$(files_naming "$prefix" "$path")
    [[ -z $named ]] || fail "installed files name $path: $named"
done

# ---- a moved copy runs: implvm finds the module, the module CoreUtils
moved=$scratch/elsewhere
cp -a "$prefix" "$moved"
methods=$("$moved/bin/implvm" methods 2>&1) || fail "the moved implvm methods: $methods"
[[ $methods == *VirtualMachineImpl_Common_GetModuleVersion* ]] ||
    fail "the moved implvm lists no method functions: $methods"
check_demo_inventory "$moved/bin/implvm" "$source" "$scratch/mac"

# ---- implvm(1) and the completion know every command, subcommands included
implvm=$moved/bin/implvm
page=$moved/share/man/man1/implvm.1
commands_of() {  # the commands `implvm WORDS... --help` lists
    "$implvm" "$@" --help | awk '/^[A-Za-z ]*[Cc]ommands:$/ { on = 1; next } /^$/ { on = 0 } on && /^  [^ ]/ { print $1 }'
}
completion=$moved/share/bash-completion/completions/implvm
top=$(commands_of)
[[ -n $top ]] || fail "implvm --help lists no commands"
grep -q '^\.TH IMPLVM 1 ' "$page" || fail "implvm.1 has no .TH IMPLVM 1 title"
complete_words "$completion" "$implvm" ""
first=$REPLIES
for command in $top; do
    grep -qF ".SS \"implvm $command\"" "$page" || fail "implvm.1 has no section for $command"
    [[ " $first " == *" $command "* ]] || fail "completing 'implvm ' lacks $command: '$first'"
    subcommands=$(commands_of "$command")
    if [[ -n $subcommands ]]; then
        complete_words "$completion" "$implvm" "$command" ""
        for sub in $subcommands; do
            grep -qF ".SS \"implvm $command $sub\"" "$page" || fail "implvm.1 has no section for $command $sub"
            [[ " $REPLIES " == *" $sub "* ]] || fail "completing 'implvm $command ' lacks $sub: '$REPLIES'"
        done
    fi
done
check_groff "$page"

# Completion cases beyond the command lists: words typed -> a candidate
# expected ("" when none is, so that bash falls back to file names).
while IFS='|' read -r words expected; do
    typed_words "$words"
    complete_words "$completion" "$implvm" "${TYPED[@]}"
    if [[ -z $expected ]]; then
        [[ -z $REPLIES ]] || fail "completing 'implvm $words' gives '$REPLIES', expected nothing"
    else
        [[ " $REPLIES " == *" $expected "* ]] || fail "completing 'implvm $words' gives '$REPLIES', expected $expected"
    fi
done <<'CASES'
inventory --j|--json
start --ro|--root
--root /tmp |inventory
--root /tmp call --in KEY=VALUE VirtualMachineImpl_Common_GetM|VirtualMachineImpl_Common_GetModuleVersion
call VirtualMachineImpl_Common_GetM|VirtualMachineImpl_Common_GetModuleVersion
--root |
call --product-version |
CASES

finish
