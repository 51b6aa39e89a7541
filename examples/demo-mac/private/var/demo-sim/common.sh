# Shared by the simulated Mac's tools (sourced, never run). The caller sets
# ROOT to the machine root before sourcing; every path a tool writes is
# "$ROOT" followed by a path as the Mac sees it, so nothing outside the root
# is ever touched.

SIM="$ROOT/private/var/demo-sim"

# The host path of a Mac path; refuses relative paths and any ".." step so
# that an argument cannot lead a tool out of the root.
host_path() {
    case "$1" in
        /*) ;;
        *) return 1 ;;
    esac
    case "/$1/" in
        */../*) return 1 ;;
    esac
    printf '%s%s' "$ROOT" "$1"
}

# A fact of .machine ("key = value"), the first one only.
fact() {
    sed -n "s/^$1[[:space:]]*=[[:space:]]*//p" "$ROOT/.machine" | head -n 1
}

console_home() { fact console_home; }

stamp() { date -u +%Y-%m-%dT%H:%M:%S; }

# A bundle's CFBundleShortVersionString (Mac path of the bundle).
bundle_version() {
    sed -n '/<key>CFBundleShortVersionString<\/key>/{n;s:.*<string>\(.*\)</string>.*:\1:p;}' \
        "$ROOT$1/Contents/Info.plist"
}

# A small number that names a path in the state folder's file names.
path_key() { printf '%s' "$1" | cksum | cut -d' ' -f1; }

# ---- the process table that /bin/ps shows ----
# One process a line: PID, STAT, TIME and COMMAND separated by tabs.

TAB=$(printf '\t')

next_pid() {
    _pid=$(cat "$SIM/next-pid" 2>/dev/null || echo 4000)
    echo $((_pid + 7)) > "$SIM/next-pid"
    echo "$_pid"
}

proc_add() {  # COMMAND [STAT]
    printf '%s\t%s\t%s\t%s\n' "$(next_pid)" "${2:-S}" "0:00.42" "$1" >> "$SIM/processes"
}

proc_remove() {  # any process whose command contains TEXT
    grep -v -F -e "$1" "$SIM/processes" > "$SIM/processes.new" || true
    mv "$SIM/processes.new" "$SIM/processes"
}

proc_has() { grep -q -F -e "$1" "$SIM/processes" 2>/dev/null; }
