# Debian packages that a script needs, by name: `need_packages cpio qemu-system-x86` installs those that
# are missing, as root or through sudo, and says what to type when it can do neither.

packages_lock=$(realpath "${BASH_SOURCE[0]}")

# One at a time: scripts that run beside each other may need the same.
need_packages() {
    (flock 8 && install_missing "$@") 8<"$packages_lock"
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
