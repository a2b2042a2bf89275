# What every script begins with. Sets `root` to the folder of the repository. With --help as its first argument, the script
# prints the comment at its head and ends.

root=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
script=$(realpath "$0")

case ${1-} in
--help | -h)
    sed -n '2,/^set /s/^# \{0,1\}//p' "$script"
    exit
    ;;
esac

# refuse WHY: ends the script because of its arguments.
refuse() {
    echo "${script#"$root/"}: $*; see ${script#"$root/"} --help" >&2
    exit 2
}

# need_packages PACKAGE...: installs the Debian packages of these names that are missing, as root or through sudo, or says
# what to type when it can do neither. One script at a time, since others may need the same.
need_packages() {
    (flock 8 && install_missing "$@") 8<"$root/scripts/lib/script.sh"
}

install_missing() {
    local package missing=()
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null)" = "install ok installed" ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || {
            echo "These Debian packages are missing; as root: apt-get install ${missing[*]}" >&2
            return 1
        }
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}" >&2
    local install=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install)
    "${install[@]}" "${missing[@]}" >&2 && return 0
    # The lists of a fresh system are empty or old.
    "${as_root[@]}" apt-get -qq update >&2 && "${install[@]}" "${missing[@]}" >&2
}
