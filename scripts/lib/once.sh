# Things that are made once and kept, until what they are made by changes.

# made_before DIRECTORY FILE...: whether the directory was made by just these files; otherwise it is empty afterwards, to be
# made. Until this shell ends, others that ask wait.
made_before() {
    mkdir -p "$1"
    exec 9>"$1.lock"
    flock 9
    made_in=$1
    made_by=$(cat "${@:2}" | sha256sum)
    [ "$(cat "$1/stamp" 2>/dev/null)" != "$made_by" ] || return 0
    rm -rf "$1"
    mkdir "$1"
    return 1
}

# What made_before was asked about is complete.
now_made() { echo "$made_by" >"$made_in/stamp"; }
