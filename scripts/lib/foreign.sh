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
