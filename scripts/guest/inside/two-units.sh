# Two units in network namespaces of one guest machine, mp3 and mp7, joined by a cable.

work=/tmp/demo
mkdir -p $work
hardware=macsec
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/steps.sh"
. "$here/cable.sh"

reach() { reached=(ip netns exec "mp$1"); }

lay_cable_of_units() {
    local mpid
    lay_cable
    for mpid in 3 7; do
        ip netns add mp$mpid && ip -n mp$mpid link set lo up || fail "no network namespace mp$mpid"
        send_nothing_of_its_own ip netns exec mp$mpid
        plug mp$mpid -n mp$mpid
    done
}

# The processes of both units, and addresses on their controlled ports.
start_both() {
    local mpid
    start_unit 3 eth1
    start_unit 7 eth1
    for mpid in 3 7; do
        wait_for 20 "unit $mpid's start" logged $mpid "Connected to 'oxmsi'"
        ip -n mp$mpid address add 192.0.2.$mpid/24 dev sec-a1 || fail "unit $mpid has no controlled port sec-a1"
        ip -n mp$mpid link set sec-a1 up
    done
}
