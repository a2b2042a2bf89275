# The guest machine of one architecture: what differs between architectures, what it boots from, and its qemu. Stands on
# scripts/lib/script.sh.

# `guest_arch amd64` sets all that differs between the architectures. Debian's names throughout.
guest_arch() {
    arch=$1
    case $arch in
    amd64)
        triplet=x86_64-linux-gnu
        kernel_package=linux-image-amd64
        qemu_package=qemu-system-x86
        # The processor has a random number instruction: the guest's generator is ready at once.
        qemu=(qemu-system-x86_64 -machine "pc,accel=tcg" -cpu "qemu64,+rdrand")
        console=ttyS0
        ;;
    armhf)
        triplet=arm-linux-gnueabihf
        kernel_package=linux-image-armmp
        qemu_package=qemu-system-arm
        qemu=(qemu-system-arm -machine "virt,accel=tcg,highmem=off" -cpu cortex-a15 -device virtio-rng-pci)
        console=ttyAMA0
        emulator=qemu-arm-static
        ;;
    *)
        echo "No guest machine of architecture '$arch'; there are amd64 and armhf." >&2
        return 1
        ;;
    esac

    # Where the shared libraries of a program of ours lie, first match wins: the host's own when it is of this
    # architecture, those of the cross compiler otherwise.
    if [ "$arch" = "$(dpkg --print-architecture)" ]; then
        library_path=("/lib/$triplet" "/usr/lib/$triplet")
    else
        library_path=("/usr/$triplet/lib")
    fi
}

# `use_machine amd64` makes the machine ready; its kernel and base are in the folder `cache` then.
use_machine() {
    guest_arch "$1"
    cache=$("$root/scripts/guest/prepare" "$1")
    use_libraries_in "$cache/unpacked"
}

# Unpacked packages of the architecture have libraries too.
use_libraries_in() { library_path+=("$1/lib/$triplet" "$1/usr/lib/$triplet"); }

# Prints the path of a library.
find_library() { # NAME
    local directory
    for directory in "${library_path[@]}"; do
        [ ! -e "$directory/$1" ] || { readlink -f "$directory/$1"; return; }
    done
    echo "The library $1 is in none of ${library_path[*]}." >&2
    return 1
}

# add_libraries DIRECTORY PROGRAM: copies the shared libraries that a program needs, and those that these need, to the
# same places below DIRECTORY. Nothing is executed, so it works for any architecture.
add_libraries() {
    local into=$1 file=$2 name found
    local names=()
    mapfile -t names < <(readelf -dl "$file" 2>/dev/null |
        sed -n -e 's/.*(NEEDED).*\[\(.*\)\]/\1/p' -e 's/.*program interpreter: \(.*\)\]/\1/p')
    for name in "${names[@]}"; do
        case $name in
        /*) # the loader, at the path that the program names
            [ -e "$into$name" ] && continue
            found=$(find_library "$(basename "$name")") || return 1
            install -D -m 755 "$found" "$into$name"
            ;;
        *)
            [ -e "$into/usr/lib/$name" ] && continue
            found=$(find_library "$name") || return 1
            install -D -m 755 "$found" "$into/usr/lib/$name"
            add_libraries "$into" "$found" || return 1
            ;;
        esac
    done
}

# make_initramfs DIRECTORY ADDITION...: makes DIRECTORY/initramfs, from which the machine boots: its base, what is in
# DIRECTORY/overlay, the scripts for its inside, and each ADDITION, a FILE[:PATH] as scripts/guest/run has it.
make_initramfs() {
    local overlay=$1/overlay addition file path
    mkdir -p "$overlay/guest"
    for addition in "$root/scripts/guest/inside:/guest/inside" "${@:2}"; do
        file=${addition%%:*}
        path=${addition#"$file"}
        path=${path#:}
        path=${path:-/bin/$(basename "$file")}
        [ -e "$file" ] || {
            echo "--add $addition: there is no $file" >&2
            return 2
        }
        mkdir -p "$overlay$(dirname "$path")"
        cp -rL "$file" "$overlay$path"
        [ ! -f "$file" ] || add_libraries "$overlay" "$file" || return 1
    done
    (cat "$cache/base.cpio" && cd "$overlay" && find . | cpio --quiet -o -H newc -R 0:0) >"$1/initramfs"
}

# machine_command DIRECTORY MEMORY PARAMETER...: sets `boot` to the command that boots a machine from DIRECTORY/initramfs,
# with these words for its kernel.
machine_command() {
    boot=("${qemu[@]}" -m "$2" -display none -monitor none -no-reboot -nodefaults -kernel "$cache/kernel"
        -initrd "$1/initramfs" -append "console=$console quiet panic=-1 random.trust_cpu=on ${*:3}")
}
