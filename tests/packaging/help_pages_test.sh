#!/usr/bin/env bash
# cmake/HelpPages.cmake on a stand-in implvm whose help texts hold what the
# real one may grow into: nested commands, an option with a fixed set of
# values, an item without a description, a description carried over to the
# next line, text with [ ] ; and \, a line that roff would take for a
# request, and several command sections. Then a stand-in that answers an
# unknown command with the top-level help, which must stop the generator
# instead of recursing.
#
#   help_pages_test.sh CMAKE SOURCE_DIR
set -euo pipefail
cmake=$1 source=$2
. "$(dirname "$0")/testlib.sh"

scratch=$(mktemp -d "${TMPDIR:-/tmp}/implvm-help-pages.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

cat >"$scratch/implvm" <<'STANDIN'
#!/usr/bin/env bash
case "$*" in
"--help") cat <<'HELP' ;;
A stand-in.
Usage: implvm [OPTIONS] [COMMAND]

Options:
  -h,--help                       Print this help message and exit
  --root DIR                      Look at [this] Mac; really
  --fail SPEC                     Fail on purpose: Op[@tool]=code;...

VM commands:
  vm                              VMs
Other commands:
  detect                          Is this Mac a VM

Examples:
  implvm vm list --hypervisor vmware

Exit status: 0 when it worked.
HELP
"vm --help") cat <<'HELP' ;;
VMs
Usage: implvm vm [OPTIONS] COMMAND

Options:
  -h,--help                       Print this help message and exit

Commands:
  list                            List VMs

The global options may also follow the command.
HELP
"vm list --help") cat <<'HELP' ;;
List VMs
Usage: implvm vm list [OPTIONS] [PATTERN]

Positionals:
  PATTERN TEXT
  A-very-long-positional-name-that-pushes-its-description TEXT
                                  first part
                                  second part

Options:
  -h,--help                       Print this help message and exit
  --hypervisor TEXT:{parallels,vmware,virtualbox}
                                  Only this hypervisor's VMs
  --running Excludes: --stopped   Only running VMs
  --stopped Excludes: --running   Only stopped VMs

.hidden starts with a dot; C:\path has a backslash
HELP
"detect --help") cat <<'HELP' ;;
Is this Mac a VM
Usage: implvm detect [OPTIONS]

Options:
  -h,--help                       Print this help message and exit
  --json                          JSON

The global options may also follow the command.
HELP
*) exit 3 ;;
esac
STANDIN
chmod +x "$scratch/implvm"

generate() {  # stand-in, output folder
    "$cmake" -DIMPLVM="$1" -DVERSION=9.8.7 -DMAN_PAGE="$2/implvm.1" -DCOMPLETION="$2/implvm" \
        -P "$source/cmake/HelpPages.cmake"
}
if ! generate "$scratch/implvm" "$scratch/out" >"$scratch/log" 2>&1; then
    fail "the generator failed: $(cat "$scratch/log")"
    finish
fi
page=$scratch/out/implvm.1

# Each line must be in the page, as it stands.
while IFS= read -r line; do
    grep -qxF -- "$line" "$page" || fail "implvm.1 lacks the line: $line"
done <<'LINES'
.TH IMPLVM 1 "" "implvm 9.8.7" "User Commands"
\fBimplvm vm list\fR [OPTIONS] [PATTERN]
.SS "implvm vm"
.SS "implvm vm list"
.SS "implvm detect"
\fB\-\-root\fR \fIDIR\fR
Look at [this] Mac; really
Fail on purpose: Op[@tool]=code;...
\fBPATTERN\fR \fITEXT\fR
first part second part
\fB\-\-hypervisor\fR \fITEXT:{parallels,vmware,virtualbox}\fR
\&.hidden starts with a dot; C:\(rspath has a backslash
implvm vm list \-\-hypervisor vmware
0 when it worked.
The global options may also follow the command.
LINES
grep -A2 -xF '\fBPATTERN\fR \fITEXT\fR' "$page" | grep -qx '' && fail "implvm.1 has an empty line after PATTERN"
# Said once: the top level's -h,--help and the paragraph every command repeats.
count=$(grep -c 'Print this help message' "$page")
[[ $count == 1 ]] || fail "implvm.1 has the --help item $count times"
count=$(grep -c 'The global options may also follow' "$page")
[[ $count == 1 ]] || fail "implvm.1 has the shared paragraph $count times"
check_groff "$page"

# The completion: words typed -> every candidate expected, in order.
while IFS='|' read -r words expected; do
    typed_words "$words"
    complete_words "$scratch/out/implvm" implvm "${TYPED[@]}"
    [[ $REPLIES == "$expected" ]] || fail "completing 'implvm $words' gives '$REPLIES', expected '$expected'"
done <<'CASES'
 |vm detect
vm |list
vm list --hypervisor |parallels vmware virtualbox
vm list --hypervisor v|vmware virtualbox
vm list --hypervisor = v|vmware virtualbox
vm list --running |
vm list --r|--running --root
vm list --hypervisor vmware --s|--stopped
--fail X d|detect
--root |
CASES

# A stand-in that gives the top-level help for any command.
sed 's/^"--help") cat/*) cat/; /^\*) exit 3 ;;$/d' "$scratch/implvm" >"$scratch/looping"
chmod +x "$scratch/looping"
if generate "$scratch/looping" "$scratch/looped" >"$scratch/log" 2>&1; then
    fail "the generator accepted a help that is not the command's own"
elif ! grep -q "is not of 'implvm vm'" "$scratch/log"; then
    fail "the generator failed otherwise: $(cat "$scratch/log")"
fi

finish
