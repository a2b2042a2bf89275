# What the demo in the machine and the one on the host have in common: units, their processes, and the
# times of a link. Plain sh, since the machine has busybox alone.
#
# The caller defines in_unit NAME COMMAND..., which runs a command where the unit lives, and $work, a folder.

logs=$work/logs
mkdir -p "$logs" "$work/run"
chmod 700 "$work/run"
processes=
step="setting up"

say() { printf '%s\n' "$*"; }
begin() {
    step="$*"
    printf '\n== %s\n' "$*"
}
held() { printf '   ok: %s\n' "$*"; }

# Where traces are elsewhere, the caller's own brings them to $logs.
fetch_traces() { :; }

# Ends the demo: which step did not hold, why, and what every process had to say.
fail() {
    printf '\nFAILED at "%s": %s\n' "$step" "$*"
    fetch_traces
    for log in "$logs"/*.log; do
        [ -e "$log" ] || continue
        printf '\n--- %s\n' "$log"
        grep -vE '>[0-9.]+ [^ ]* (enter|return|detail) ' "$log" | tail -n 60
    done
    exit 1
}

# environment MPID: the platform's, for a process of the unit mp<MPID>.
environment() {
    printf 'OKA_DIR=%s OKA_UNIT=mp%s ZEB_STAMP=yes' "$work/run" "$1"
}

# start NAME MPID COMMAND...: a process of a unit, its traces in the unit's log.
start() {
    unit=$1 mpid=$2
    shift 2
    # shellcheck disable=SC2046 # the words of the environment are meant to fall apart
    in_unit "$unit" env $(environment "$mpid") "$@" 2>>"$logs/$unit.log" &
    processes="$processes $!"
}

start_daemon() { # MPID INTERFACE
    start "mp$1" "$1" env "MPID=$1" "OXHAL_DRIVER=$hardware" "OXHAL_PORTS=DiPort_A1=$2:sec-a1" \
        "ZEB_TRACE=error info state-change trace" qel-tavu
}

# start_unit MPID INTERFACE: the three processes of a unit; it has no link unless one was published before.
start_unit() {
    [ -e "$work/links-mp$1.toml" ] || echo 'link = []' >"$work/links-mp$1.toml"
    start "mp$1" "$1" oxpcsi-server --port "IDL_A1=$2"
    start_daemon "$1" "$2"
    start "mp$1" "$1" idl-topologyd --links "$work/links-mp$1.toml"
}

# publish MPID REMOTE_MPID: one link, put into the unit's links file in one move.
publish() {
    cat >"$work/links-mp$1.new" <<END
[[link]]
port = "IDL_A1"
id = 1
remote-port = "IDL_A1"
remote-mpid = $2
hunt-path = "mp$2"
END
    mv "$work/links-mp$1.new" "$work/links-mp$1.toml"
}

control() { # MPID ARGUMENT...: tavuctl of a unit
    mpid=$1
    shift
    # shellcheck disable=SC2046
    in_unit "mp$mpid" env $(environment "$mpid") tavuctl "$@"
}

is_encrypted() { control "$1" status --json 2>/dev/null | tr -d ' \n' | grep -q '"encryption":"enabled"'; }
both_encrypted() { is_encrypted 3 && is_encrypted 7; }
neither_encrypted() { ! is_encrypted 3 && ! is_encrypted 7; }
logged() { grep -q -- "$2" "$logs/mp$1.log" 2>/dev/null; } # MPID TEXT
both_logged() { logged 3 "$1" && logged 7 "$1"; }

# wait_for SECONDS WHAT COMMAND...: until the command holds.
wait_for() {
    limit=$1 what=$2
    shift 2
    tries=$((limit * 5))
    until "$@"; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || fail "$what did not happen within $limit s"
        sleep 0.2
    done
}

# The stamp of the first line with a text, in microseconds; MPID TEXT.
when() {
    grep -m 1 -- "$2" "$logs/mp$1.log" | sed 's/^<[0-9]>\([0-9]*\)\.\([0-9]*\) .*/\1\2/'
}

# Traced when a port protects what it sends and takes nothing else.
protection_on="new MACsec encryption state: 'MACSEC_ENCRYPTION_ENABLED'"
# And when it no longer does.
protection_off="new MACsec encryption state: 'MACSEC_ENCRYPTION_DISABLED'"

# The moment when the later end published its link, in microseconds.
find_publication() {
    published=0
    for mpid in 3 7; do
        at=$(when $mpid "status up$")
        [ "${at:-0}" -gt 0 ] || fail "unit $mpid never published its link"
        [ "$at" -gt "$published" ] && published=$at
    done
}

# The milliseconds of each end's way since then.
show_times() {
    find_publication
    printf '   %-42s %12s %12s\n' "milliseconds since publication" "unit 3" "unit 7"
    while read -r label text; do
        printf '   %-42s' "$(printf %s "$label" | tr _ ' ')"
        for mpid in 3 7; do
            at=$(when $mpid "$text")
            [ -n "$at" ] || fail "unit $mpid never traced '$text'"
            printf ' %12s' "$(awk "BEGIN { printf \"%.3f\", ($at - $published) / 1000 }")"
        done
        printf '\n'
    done <<END
link_published status up$
joined_its_connectivity_association joined CA
receive_key_installed Enabling port 'IDL_A1'::RX SC
transmit_key_installed Enabling port 'IDL_A1'::TX SC
protection_on $protection_on
link_confirmed_to_the_topology_manager confirmed after .* encryption enabled
END
}

# What tavuctl says of both ends.
show_status() {
    for mpid in 3 7; do
        control $mpid status >"$work/status" || fail "tavuctl of unit $mpid ended with status $?"
        say "   unit $mpid"
        sed -e 's/^/   /' -e 's/ *$//' "$work/status"
    done
}

stop_all() {
    # shellcheck disable=SC2086
    [ -z "$processes" ] || kill $processes 2>/dev/null
    wait 2>/dev/null
}
