# Shared by the packaging tests: failures are counted, not fatal, so that one
# run reports everything that is wrong; finish exits with the verdict.
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
finish() {
    if ((failures > 0)); then
        echo "$failures check(s) failed" >&2
        exit 1
    fi
    echo "all checks passed"
}

# Every file under $1 that holds the text $2, one per line.
files_naming() {
    grep -rlF -- "$2" "$1" || true
}

# Runs implvm $1 on a scratch copy of the demo Mac ($2: the source tree;
# $3: a scratch folder) and checks that it inventories a VM of each
# hypervisor. 0 and 1 both mean the inventory ran (1: some call failed,
# which the demo Mac's broken VM may cause); 2 is a usage error or a module
# that could not be loaded.
check_demo_inventory() {
    local implvm=$1 source=$2 scratch=$3 output status=0
    rm -rf "$scratch"
    cp -R "$source/examples/demo-mac" "$scratch"
    output=$("$implvm" --root "$scratch" inventory 2>&1) || status=$?
    if ((status > 1)); then
        fail "$implvm --root <demo Mac> inventory exited with $status: $output"
        return
    fi
    local vm
    for vm in "Windows XP" "Windows 7 x64" "Debian 12"; do
        [[ $output == *"$vm"* ]] || fail "the inventory of the demo Mac lacks the VM $vm: $output"
    done
}
