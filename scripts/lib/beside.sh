# `beside COMMAND...` runs shell commands beside each other, each given as one word, and prints what each of them said,
# one after the other. Fails when one of them did. Who ends it ends them: what a script puts into the background does
# not hear the terminal's interrupt.

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
