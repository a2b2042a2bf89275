# The steps of the demos and of the tests in the guest machine: what is printed, two units and their processes, what is
# waited for, and what is looked at once their link is secured. For bash, in the machine and on the host.
#
# A script sets `work`, a folder for its files, and `hardware`, the SecYs' driver, and then sources this file. It may
# define `reach`, `set_environment` and `show_evidence` anew afterwards.

logs=$work/logs
unit_work=${unit_work-$work} # where the units themselves have their files
mkdir -p "$logs" "$work/run"
chmod 700 "$work/run"
processes=()
step="setting up"

# --- What is printed

say() { printf '%s\n' "$*"; }
begin() {
    step=$*
    printf '\n== %s\n' "$*"
}
held() { printf '   ok: %s\n' "$*"; }

# A trace of a function's entry or return, or a detail: too many to read.
chatter='^<[0-9]>[0-9.]+ [^ ]* (enter|return|detail) '

show_logs() {
    local log
    for log in "$logs"/*.log; do
        [ -e "$log" ] || continue
        printf '\n--- %s\n' "$log"
        grep -vE "$chatter" "$log" | tail -n 60
    done
}

# What a failure is explained by.
show_evidence() { show_logs; }

fail() {
    printf '\nFAILED at "%s": %s\n' "$step" "$*"
    show_evidence
    exit 1
}

# wait_for SECONDS WHAT COMMAND...: until the command succeeds.
wait_for() {
    local tries=$(($1 * 5))
    until "${@:3}"; do
        tries=$((tries - 1))
        [ $tries -gt 0 ] || fail "$2 did not happen within $1 s"
        sleep 0.2
    done
}

# --- Units and their processes

# The words before a command that is to run where a unit lives, and between them and one of our programs.
reach() { reached=(); } # MPID
set_environment() { environment=(env "OKA_DIR=$unit_work/run" "OKA_UNIT=mp$1" ZEB_STAMP=yes); } # MPID

# Any command. busybox's `env` would start busybox's own programs, so there is none before it.
in_unit() { # MPID COMMAND...
    local reached
    reach "$1"
    "${reached[@]}" "${@:2}"
}
# One of our programs.
run_in_unit() { # MPID PROGRAM...
    local environment
    set_environment "$1"
    in_unit "$1" "${environment[@]}" "${@:2}"
}

# start MPID PROGRAM...: a process of the unit, its traces in the unit's log.
start() {
    local reached environment
    reach "$1"
    set_environment "$1"
    "${reached[@]}" "${environment[@]}" "${@:2}" 2>>"$logs/mp$1.log" &
    processes+=($!)
}

# start_unit MPID INTERFACE: the three processes of a unit; it has no link unless one was published before.
start_unit() {
    [ -e "$work/links-mp$1.toml" ] || echo 'link = []' >"$work/links-mp$1.toml"
    start "$1" oxpcsi-server --port "IDL_A1=$2"
    local ports=("OXHAL_DRIVER=$hardware" "OXHAL_PORTS=DiPort_A1=$2:sec-a1" "OXHAL_SIM_VIEW=$work/secys-mp$1")
    start "$1" env "MPID=$1" "${ports[@]}" "ZEB_TRACE=error info state-change trace" qel-tavu
    start "$1" env "${ports[@]}" idl-topologyd --links "$work/links-mp$1.toml"
}

stop_all() {
    [ ${#processes[@]} -eq 0 ] || kill "${processes[@]}" 2>/dev/null
    wait 2>/dev/null
    processes=()
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

# A fresh key for TIPC, in a file that only its owner reads.
make_tipc_key() { (umask 077 && (printf 0x && od -An -N20 -tx1 /dev/urandom | tr -d ' \n') >"$1"); }
# The secret of a node's group, which its owner's group may read.
make_group_secret() { (umask 027 && head -c 32 /dev/urandom | base64 >"$1"); }

# --- What a unit says of its link

control() { run_in_unit "$1" tavuctl "${@:2}"; } # MPID ARGUMENT...
is_encrypted() { control "$1" status --json 2>/dev/null | tr -d ' \n' | grep -q '"encryption":"enabled"'; }
both_encrypted() { is_encrypted 3 && is_encrypted 7; }
neither_encrypted() { ! is_encrypted 3 && ! is_encrypted 7; }
logged() { in_unit "$1" grep -q -- "$2" "$unit_work/logs/mp$1.log" 2>/dev/null; } # MPID TEXT
both_logged() { logged 3 "$1" && logged 7 "$1"; }
refreshes() {
    in_unit 3 grep -c "changing state: 'KEY_REFRESH_IDLE' -> 'KEY_REFRESH_ONGOING'" "$unit_work/logs/mp3.log" || true
}

show_status() {
    local mpid
    for mpid in 3 7; do
        control $mpid status >"$work/status" || fail "tavuctl of unit $mpid ended with status $?"
        say "   unit $mpid"
        sed -e 's/^/   /' -e 's/ *$//' "$work/status"
    done
}

# --- When it happened, by the stamps of the traces, in microseconds

# A port protects what it sends and takes nothing else; and no longer does.
protection_on="new MACsec encryption state: 'MACSEC_ENCRYPTION_ENABLED'"
protection_off="new MACsec encryption state: 'MACSEC_ENCRYPTION_DISABLED'"

# moments MPID TEXT [OPTION OF GREP]...: when a unit traced that text, each time.
moments() { (grep "${@:3}" -- "$2" "$logs/mp$1.log" || true) | sed 's/^<[0-9]>\([0-9]*\)\.\([0-9]*\) .*/\1\2/'; }
first_moment() { moments "$1" "$2" -m 1; }

# When the later end was encrypted for the last time.
encrypted_at() {
    local mpid
    for mpid in 3 7; do moments $mpid "$protection_on" | tail -n 1; done | sort -n | tail -n 1
}

# Sets `published` to when the later end published its link.
find_publication() {
    local mpid at
    published=0
    for mpid in 3 7; do
        at=$(first_moment $mpid "status up$")
        [ "${at:-0}" -gt 0 ] || fail "unit $mpid never published its link"
        [ "$at" -lt "$published" ] || published=$at
    done
}

# How long each end took since then, in milliseconds.
show_times() {
    local label text mpid at
    find_publication
    printf '   %-42s %12s %12s\n' "milliseconds since publication" "unit 3" "unit 7"
    while IFS='|' read -r label text; do
        printf '   %-42s' "$label"
        for mpid in 3 7; do
            at=$(first_moment $mpid "$text")
            [ -n "$at" ] || fail "unit $mpid never traced '$text'"
            printf ' %12s' "$(awk "BEGIN { printf \"%.3f\", ($at - $published) / 1000 }")"
        done
        printf '\n'
    done <<END
link published|status up$
joined its connectivity association|joined CA
receive key installed|Enabling port 'IDL_A1'::RX SC
transmit key installed|Enabling port 'IDL_A1'::TX SC
protection on|$protection_on
link confirmed to the topology manager|confirmed after .* encryption enabled
END
}

# --- What the kernel and the cable show

# show_first_ping FILE AHEAD: the first answer after both ends were encrypted, in the output of `ping -D`, whose clock is
# AHEAD microseconds ahead of that of the traces.
show_first_ping() {
    sed -n 's/^\[\([0-9]*\)\.\([0-9]*\)\] .* bytes from .*/\1\2/p' "$1" |
        awk -v ahead="$2" -v protected="$(encrypted_at)" -v published="$published" '
            !found && $1 - ahead > protected {
                printf "   answered %.1f ms after publication\n", ($1 - ahead - published) / 1000
                found = 1
            }
            END { exit !found }' || fail "no answer: $(tail -n 3 "$1")"
}

show_kernels_view() {
    local mpid
    for mpid in 3 7; do
        say "   unit $mpid"
        in_unit $mpid ip macsec show >"$work/macsec"
        sed 's/^/   /' "$work/macsec"
        grep -q 'protect on validate strict' "$work/macsec" || fail "unit $mpid's SecY does not protect"
        ! logged $mpid "clear frames reach the host" || fail "unit $mpid does not redirect clear frames"
    done
}

# show_secured_link FILE AHEAD, with the first ping as above.
show_secured_link() {
    begin "First encrypted ping"
    show_first_ping "$@"
    begin "tavuctl status of both ends"
    show_status
    begin "The kernel's own view"
    show_kernels_view
}

# frames FILE FILTER...: how many there are in a capture.
frames() { tcpdump -n -r "$1" "${@:2}" 2>/dev/null | grep -c '^[0-9]' || true; }

# TIPC's messages in a capture: those encrypted, and those in the clear. A header begins with the version, in three bits,
# which is 7 for what is encrypted.
tipc_messages() { # FILE
    tcpdump -n -x -r "$1" ether proto 0x88ca 2>/dev/null | awk '
        /0x0000:/ { if ($2 ~ /^[ef]/) encrypted++; else clear++ }
        END { print encrypted + 0, clear + 0 }'
}

# check_capture FILE PINGS: so many pings and their answers, all of them MACsec, and nothing in the clear.
check_capture() {
    local neither='not ether proto 0x88e5 and not ether proto 0x88ca' macsec others encrypted clear
    macsec=$(frames "$1" ether proto 0x88e5)
    others=$(frames "$1" "$neither")
    read -r encrypted clear <<<"$(tipc_messages "$1")"
    say "   $macsec frames with EtherType 0x88e5, $others others"
    [ $((encrypted + clear)) -eq 0 ] || say "   and TIPC: $encrypted messages encrypted, $clear in the clear"
    [ "$macsec" -ge $(($2 * 2)) ] || fail "fewer frames than $2 pings and their answers make"
    [ "$others" -eq 0 ] || fail "clear frames on the cable: $(tcpdump -n -e -r "$1" -c 3 "$neither" 2>&1)"
    [ "$clear" -eq 0 ] || fail "TIPC in the clear on the cable"
}

show_frames() { tcpdump -n -e -r "$1" -c 2 ether proto 0x88e5 2>/dev/null | grep '^[0-9]' | sed 's/^/   /'; } # FILE

# The keys change twice while unit 3 pings unit 7.
change_keys_under_ping() {
    local before after sent answered
    before=$(refreshes)
    in_unit 3 ping -q -n -i 0.1 -w 375 -W 2 192.0.2.7 >"$work/ping" || fail "$(cat "$work/ping")"
    after=$(refreshes)
    sed -n 's/^\([0-9]* packets transmitted.*\)/   \1/p' "$work/ping"
    sent=$(sed -n 's/^\([0-9]*\) packets transmitted.*/\1/p' "$work/ping")
    answered=$(sed -n 's/.* \([0-9]*\) \(packets \)\{0,1\}received.*/\1/p' "$work/ping")
    say "   $((after - before)) refreshes, $((sent - answered)) frames lost of $((sent * 2))"
    [ $((after - before)) -ge 2 ] || fail "only $((after - before)) refreshes in 375 s"
    [ "$sent" -eq "$answered" ] || fail "$((sent - answered)) pings were not answered"
    held "no frame was lost"
}
