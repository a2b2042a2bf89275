# The programs of a unit, built for a script that runs them: `build_programs` leaves in `additions` what
# scripts/guest/run is to be given, and in `path` the folders that hold them, for a PATH of this host.

build_programs() {
    local programs=(qel-tavu oxpcsi-server idl-topologyd tavuctl) program binary
    need_packages cmake ninja-build g++ libmnl-dev libtomlplusplus-dev
    mkdir -p build
    if [ ! -e build/release/build.ninja ]; then
        echo "Building the programs; the first time takes a minute." >&2
        cmake --preset release -DQEL_TAVU_TESTS=OFF -DQEL_TAVU_BENCH=OFF >build/programs.log || {
            cat build/programs.log
            return 1
        }
    fi
    cmake --build --preset release --target "${programs[@]}" >build/programs.log || {
        cat build/programs.log
        return 1
    }
    additions=()
    path=
    for program in "${programs[@]}"; do
        binary=$(find build/release/src -type f -name "$program" | head -n 1)
        additions+=(--add "$binary")
        path=$path$PWD/$(dirname "$binary"):
    done
}
