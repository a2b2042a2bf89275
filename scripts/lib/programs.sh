# The programs of a unit, built for a script that runs them: `build_programs [amd64|armhf]` leaves in
# `additions` what scripts/guest/run is to be given, and in `path` the folders that hold them, for a PATH of this
# host.

build_programs() {
    local programs=(qel-tavu oxpcsi-server idl-topologyd tavuctl oka-tipc-key) program binary preset=release
    case ${1-amd64} in
    amd64) need_packages cmake ninja-build g++ libmbedtls-dev libmnl-dev libtomlplusplus-dev ;;
    armhf)
        preset=armhf
        scripts/prepare-cross armhf
        ;;
    *)
        echo "The programs are built for amd64 and armhf, not for '$1'." >&2
        return 2
        ;;
    esac
    mkdir -p build
    if [ ! -e build/$preset/build.ninja ]; then
        echo "Building the programs; the first time takes a minute." >&2
        cmake --preset $preset -DQEL_TAVU_TESTS=OFF -DQEL_TAVU_BENCH=OFF >build/programs.log || {
            cat build/programs.log
            return 1
        }
    fi
    cmake --build --preset $preset --target "${programs[@]}" >build/programs.log || {
        cat build/programs.log
        return 1
    }
    additions=()
    path=
    for program in "${programs[@]}"; do
        binary=$(find build/$preset/src -type f -name "$program" | head -n 1)
        additions+=(--add "$binary")
        path=$path$PWD/$(dirname "$binary"):
    done
}
