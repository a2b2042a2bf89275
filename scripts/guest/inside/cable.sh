# A cable in the guest machine: a network namespace "cable" in which a bridge joins the ends that are plugged in, and in
# which a capture sees every frame. Stands on steps.sh.

lay_cable() {
    modprobe bridge || fail "the kernel has no bridge for the middle of the cable"
    ip netns add cable || fail "no network namespace for the cable"
    send_nothing_of_its_own ip netns exec cable
    ip -n cable link add middle type bridge mcast_snooping 0
    ip -n cable link set middle up
}

# plug END [-n NAMESPACE]: an interface eth1, there or in this namespace, whose other end is "to-END" in the cable.
plug() {
    ip "${@:2}" link add eth1 type veth peer name "to-$1" netns cable || fail "no veth cable"
    ip "${@:2}" link set eth1 up
    ip -n cable link set "to-$1" master middle
    ip -n cable link set "to-$1" up
}

# send_nothing_of_its_own [WORD]...: only what units send is to be on the cable, no neighbour discovery of the kernel's.
# The words lead into a namespace.
send_nothing_of_its_own() {
    "$@" sh -c 'for which in all default; do echo 1 >/proc/sys/net/ipv6/conf/$which/disable_ipv6; done'
}

# begin_capture END ARGUMENT...: tcpdump at an end of the cable, its output in $work/capture.
begin_capture() {
    : >"$work/tcpdump.log"
    ip netns exec cable tcpdump -n -i "to-$1" --immediate-mode "${@:2}" >"$work/capture" 2>"$work/tcpdump.log" &
    capture=$!
    until grep -q 'listening on' "$work/tcpdump.log"; do sleep 0.05; done
}
end_capture() {
    sleep 0.3
    kill $capture
    wait $capture 2>/dev/null || true
}
