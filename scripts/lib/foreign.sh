# `foreign_apt ARCHITECTURE DIRECTORY` sets the array `apt` to an apt-get that fetches packages of any
# architecture into a state directory of its own, where nothing is installed yet: no root, and no foreign
# architecture in the system's apt, are needed. Archives come to DIRECTORY/archives.

foreign_apt() {
    local arch=$1 state=$2
    mkdir -p "$state/lists/partial" "$state/archives/partial"
    : >"$state/status"
    apt=(apt-get -qq -y -o "APT::Architecture=$arch" -o "APT::Architectures=$arch" -o "Dir::State::lists=$state/lists"
        -o "Dir::State::status=$state/status" -o "Dir::State::extended_states=$state/extended" -o "Dir::Cache=$state"
        -o "Dir::Cache::archives=$state/archives" -o APT::Sandbox::User=root -o Debug::NoLocking=true
        -o APT::Install-Recommends=false)
    "${apt[@]}" update >&2 || echo "Going on with the package lists that could be fetched." >&2
}

# `run_foreign ARCHITECTURE COMMAND...` runs a command, whose programs of ARCHITECTURE the kernel starts under the
# user-mode emulator. A host where it does not do that already is left as it is: root gets a user namespace with a
# binfmt_misc of its own, which Linux has since 6.7.
run_foreign() {
    local arch=$1 emulator=qemu-arm handlers=/proc/sys/fs/binfmt_misc
    shift
    [ "$arch" = armhf ] || {
        echo "Programs of armhf are started under emulation, not those of $arch." >&2
        return 2
    }
    need_packages qemu-user-static >&2
    if [ -e "$handlers/$emulator" ]; then
        "$@"
        return
    fi
    [ "$(id -u)" -eq 0 ] || {
        echo "The kernel does not start programs of $arch here; as root: systemctl restart systemd-binfmt" >&2
        return 1
    }
    local mapped pid go status=0
    mapped=$(mktemp -d)
    mkfifo "$mapped/go"
    exec {go}<>"$mapped/go"
    # With process numbers of its own, for /proc within.
    unshare --user --mount --pid --fork --kill-child bash -c '
        read -r _ <"$1" && mount -t binfmt_misc binfmt_misc "$2" && cat "/usr/lib/binfmt.d/$3.conf" >"$2/register" || {
            echo "This kernel knows no binfmt_misc of a namespace: systemctl restart systemd-binfmt, as root" >&2
            exit 1
        }
        shift 3
        exec "$@"' - "$mapped/go" "$handlers" "$emulator" "$@" &
    pid=$!
    # Until it is in its namespace, or has ended.
    while [ "$(readlink "/proc/$pid/ns/user")" = "$(readlink /proc/self/ns/user)" ]; do sleep 0.05; done
    if { echo "0 0 65536" >"/proc/$pid/uid_map" && echo "0 0 65536" >"/proc/$pid/gid_map"; } 2>/dev/null; then
        echo >&"$go"
    else
        kill "$pid" 2>/dev/null || true
        echo "No user namespace is to be had here, so no programs of $arch can be started: on the host itself," \
            "as root: systemctl restart systemd-binfmt" >&2
    fi
    wait "$pid" || status=$?
    exec {go}>&-
    rm -r "$mapped"
    return $status
}
