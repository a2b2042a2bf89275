# `add_libraries DIRECTORY PROGRAM` copies the shared libraries that a program needs, and what those
# need, to the same places below DIRECTORY. Works for any architecture, since nothing is executed; the
# libraries are looked for in the directories of the array library_path, first match wins.

add_libraries() {
    local into=$1 file=$2 name directory found
    local names=()
    mapfile -t names < <(readelf -dl "$file" 2>/dev/null |
        sed -n -e 's/.*(NEEDED).*\[\(.*\)\]/\1/p' -e 's/.*program interpreter: \(.*\)\]/\1/p')
    for name in "${names[@]}"; do
        if [ "${name#/}" != "$name" ]; then # the loader, at the path that the program names
            [ -e "$into$name" ] && continue
            found=
            for directory in "${library_path[@]}"; do
                [ -e "$directory/$(basename "$name")" ] && found=$directory/$(basename "$name") && break
            done
            [ -n "$found" ] || { echo "$file: its loader $name is not to be found" >&2; return 1; }
            install -D -m 755 "$(readlink -f "$found")" "$into$name"
            continue
        fi
        [ -e "$into/usr/lib/$name" ] && continue
        found=
        for directory in "${library_path[@]}"; do
            [ -e "$directory/$name" ] && found=$directory/$name && break
        done
        [ -n "$found" ] || { echo "$file: the library $name is not to be found in ${library_path[*]}" >&2; return 1; }
        install -D -m 755 "$(readlink -f "$found")" "$into/usr/lib/$name"
        add_libraries "$into" "$found"
    done
}
