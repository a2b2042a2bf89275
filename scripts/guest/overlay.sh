# `make_initramfs BASE OVERLAY FILE` packs what a guest machine boots from: the base of its architecture and the folder
# OVERLAY upon it. `add_to_overlay OVERLAY ADDITION...` puts files and folders there, each ADDITION a FILE[:PATH]
# as scripts/guest/run has it. Stands on libraries.sh.

add_to_overlay() {
    local overlay=$1 addition file path
    shift
    for addition; do
        file=${addition%%:*}
        path=${addition#"$file"}
        path=${path#:}
        path=${path:-/bin/$(basename "$file")}
        [ -e "$file" ] || {
            echo "--add $addition: there is no $file" >&2
            exit 2
        }
        mkdir -p "$overlay$(dirname "$path")"
        cp -rL "$file" "$overlay$path"
        [ ! -f "$file" ] || add_libraries "$overlay" "$file"
    done
}

make_initramfs() {
    (cat "$1" && cd "$2" && find . | cpio --quiet -o -H newc -R 0:0) >"$3"
}
