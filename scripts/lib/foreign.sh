# Debian packages of any architecture, fetched without root and unpacked; nothing is installed.

# foreign_apt ARCHITECTURE DIRECTORY: sets `apt` to an apt-get with a state of its own in DIRECTORY, so that no foreign
# architecture is needed in the system's apt. Archives are put into DIRECTORY/archives.
foreign_apt() {
    local arch=$1 state=$2
    mkdir -p "$state/lists/partial" "$state/archives/partial"
    : >"$state/status"
    apt_options=(-o "APT::Architecture=$arch" -o "APT::Architectures=$arch" -o "Dir::State::lists=$state/lists"
        -o "Dir::State::status=$state/status" -o "Dir::State::extended_states=$state/extended" -o "Dir::Cache=$state"
        -o "Dir::Cache::archives=$state/archives" -o APT::Sandbox::User=root -o Debug::NoLocking=true
        -o APT::Install-Recommends=false)
    apt=(apt-get -qq -y "${apt_options[@]}")
    "${apt[@]}" update >&2 || echo "Going on with the package lists that could be fetched." >&2
}

# fetch_alone DIRECTORY PACKAGE...: these packages, without what they depend on.
fetch_alone() { (cd "$1/archives" && "${apt[@]}" download "${@:2}" >&2); }
# fetch_with_all PACKAGE...: with everything that they depend on.
fetch_with_all() { "${apt[@]}" --download-only install "$@" >&2; }

# unpack_archives DIRECTORY INTO: everything that was fetched, which is then removed.
unpack_archives() {
    local archive
    for archive in "$1"/archives/*.deb; do
        dpkg-deb -x "$archive" "$2"
        rm "$archive"
    done
}
