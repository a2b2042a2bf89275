# All that differs between the architectures of the guest machine, as variables, for one of them:
# `guest_arch amd64`. Debian's names throughout.

guest_arch() {
    arch=$1
    case $arch in
    amd64)
        triplet=x86_64-linux-gnu
        kernel_package=linux-image-amd64
        qemu_package=qemu-system-x86
        # The processor has a random number instruction: the guest's generator is ready at once.
        qemu=(qemu-system-x86_64 -machine "pc,accel=tcg" -cpu qemu64,+rdrand)
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

    # Where the shared libraries of a program of ours lie, first match wins: the host's own when it is of
    # this architecture, those of the cross compiler otherwise.
    if [ "$arch" = "$(dpkg --print-architecture)" ]; then
        library_path=(/lib/$triplet /usr/lib/$triplet)
    else
        library_path=(/usr/$triplet/lib)
    fi
}
