# `beside COMMAND...` runs shell commands at the same time, each given as one word, and prints the output of each, one
# after the other. It fails when one of them failed. When it is interrupted it kills them: processes in the background of
# a script do not get the terminal's interrupt.

beside() (
    said=$(mktemp -d)
    pids=()
    trap 'kill "${pids[@]}" 2>/dev/null || true; rm -rf "$said"' EXIT
    trap 'exit 130' INT TERM HUP
    for command; do
        (set -e; eval "$command") >"$said/${#pids[@]}" 2>&1 &
        pids+=($!)
    done
    failed=0
    for i in "${!pids[@]}"; do
        wait "${pids[i]}" || failed=1
        cat "$said/$i"
    done
    pids=()
    exit $failed
)
