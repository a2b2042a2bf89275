# Two units in network namespaces of one booted machine, joined by a cable through a third one, "cable", in
# which a capture can see every frame. Plain sh; stands on demo-common.sh.

work=/tmp/demo
mkdir -p $work
hardware=macsec
. "$(dirname "$0")/demo-common.sh"
export PATH=/bin:/sbin:/usr/bin:/usr/sbin

in_unit() {
    unit=$1
    shift
    ip netns exec "$unit" "$@"
}

# Namespaces mp3 and mp7, an interface eth1 in each, and the cable between the two.
lay_cable() {
    modprobe bridge || fail "the kernel has no bridge for the middle of the cable"
    for unit in mp3 mp7 cable; do
        ip netns add $unit && ip -n $unit link set lo up || fail "no network namespace $unit"
    done
    # Only what the units send is to be on the cable: no neighbour discovery of the common ports' own.
    ip -n cable link add middle type bridge mcast_snooping 0
    in_unit cable sh -c 'echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6; echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6'
    for mpid in 3 7; do
        in_unit mp$mpid sh -c 'echo 1 >/proc/sys/net/ipv6/conf/default/disable_ipv6'
        ip -n mp$mpid link add eth1 type veth peer name to-mp$mpid netns cable || fail "no veth cable"
        ip -n mp$mpid link set eth1 up
        ip -n cable link set to-mp$mpid master middle
        ip -n cable link set to-mp$mpid up
    done
    ip -n cable link set middle up
}

# The processes of both units, and addresses on their controlled ports.
start_both() {
    start_unit 3 eth1
    start_unit 7 eth1
    for mpid in 3 7; do
        wait_for 20 "unit $mpid's start" logged $mpid "Connected to 'oxmsi'"
        ip -n mp$mpid address add 192.0.2.$mpid/24 dev sec-a1 || fail "unit $mpid has no controlled port sec-a1"
        ip -n mp$mpid link set sec-a1 up
    done
}

refreshes() { grep -c "changing state: 'KEY_REFRESH_IDLE' -> 'KEY_REFRESH_ONGOING'" "$logs/mp3.log"; }
