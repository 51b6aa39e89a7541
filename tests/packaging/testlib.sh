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

# No warning from groff on the manual page $1, when groff is there.
check_groff() {
    command -v groff >/dev/null || return 0
    local warnings
    warnings=$(groff -man -ww -z "$1" 2>&1) || true
    [[ -z $warnings ]] || fail "groff warns about $1: $warnings"
}

# The candidates that completion script $1 offers (in REPLIES) for the words
# typed after implvm ($2: the implvm that COMP_WORDS[0] names); the last
# word is the one being typed.
complete_words() {
    REPLIES=$(bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _implvm implvm; echo "${COMPREPLY[*]}"' \
        complete "$@")
}

# The words of a line of a completion table, in TYPED: split at spaces, and
# an empty word last when the line ends with one (the cursor after a space).
typed_words() {
    read -ra TYPED <<<"$1"
    [[ $1 == *' ' ]] && TYPED+=("")
    return 0
}
