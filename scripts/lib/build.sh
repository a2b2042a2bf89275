# Building, for scripts that run what they build. The output is shown only when a build fails. Stands on script.sh, in the
# folder of the repository.

# quietly LOG COMMAND...
quietly() {
    mkdir -p build
    "${@:2}" >"build/$1.log" 2>&1 || {
        cat "build/$1.log" >&2
        return 1
    }
}

# configure PRESET [ARGUMENT]...: cmake, after what the preset needs was installed.
configure() {
    local needed=(cmake ninja-build libmbedtls-dev libmnl-dev libtomlplusplus-dev)
    [[ " $* " == *" -DQEL_TAVU_TESTS=OFF "* ]] || needed+=(libgtest-dev)
    case $1 in
    armhf | s390x) scripts/prepare-cross "$1" ;;
    asan | fuzz) need_packages "${needed[@]}" clang llvm libclang-rt-dev ;;
    *) need_packages "${needed[@]}" g++ ;;
    esac
    quietly "$1.configure" cmake --preset "$@"
}

build() { quietly "$(basename "$1").build" cmake --build "$1" -j "$(nproc)" --target "${@:2}"; } # DIRECTORY TARGET...

# build_programs [amd64|armhf]: the programs of a unit. Sets `programs` to their paths, and `additions` to what puts them
# into the guest machine.
build_programs() {
    local preset=release names=(qel-tavu oxpcsi-server idl-topologyd tavuctl oka-guard oka-tipc-key) name
    case ${1-amd64} in
    amd64) ;;
    armhf) preset=armhf ;;
    *)
        echo "The programs are built for amd64 and armhf, not for '$1'." >&2
        return 2
        ;;
    esac
    # A folder that has tests too keeps them.
    if [ ! -e build/$preset/build.ninja ]; then
        echo "Building the programs; the first time takes a minute." >&2
        configure $preset -DQEL_TAVU_TESTS=OFF -DQEL_TAVU_BENCH=OFF
    fi
    build build/$preset "${names[@]}"
    programs=()
    additions=()
    for name in "${names[@]}"; do
        programs+=("$(find build/$preset/src -type f -name "$name" | head -n 1)")
        additions+=(--add "${programs[-1]}")
    done
}
