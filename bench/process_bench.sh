#!/usr/bin/env bash
# Whole-process figures of featurewatch beside peer tools: how long the plain mode takes from start to exit, what the idle
# daemon costs, and how quickly it answers a changed input (bench/latency.py).
#
#     scripts/sandbox bench/process_bench.sh FEATUREWATCH [OPTION ...]
#
# FEATUREWATCH is a built binary; the options go to its watch mode, for instance --no-switch-user where the sandbox has one
# user only. Runs inside scripts/sandbox alone, since it writes /etc/orvanta and starts a daemon.
# Needs hyperfine, jq, tpm2-tools, inotify-tools and Python 3.
set -euo pipefail

fail() {
    printf 'process_bench: %s\n' "$1" >&2
    exit 1
}

check_surroundings() {
    local tool
    [[ -d /run/sandbox ]] || fail "run it under scripts/sandbox"
    for tool in hyperfine jq tpm2 inotifywait python3; do
        command -v "$tool" >/dev/null || fail "$tool is missing"
    done
}

# An input like that of a real appliance, so that the plain mode has something to read and to print.
install_input() {
    cat >/etc/orvanta/features.json <<'JSON'
{
  "features": [
    { "name": "video-wall", "validFrom": "2020-01-01T00:00:00Z", "params": { "outputs": 4 } },
    { "name": "audio-matrix", "params": { "inputs": 8, "outputs": 8 } },
    { "name": "scheduler" },
    { "name": "remote-control", "validUntil": "2099-01-01T00:00:00Z" }
  ]
}
JSON
}

# measure_start BINARY: no shell between hyperfine and the commands, and their output goes to /dev/null.
measure_start() {
    local -r results=$(mktemp)
    hyperfine --shell=none --warmup 20 --runs 200 --style none --export-json "$results" \
        --command-name 'featurewatch' "$(printf '%q' "$1")" \
        --command-name 'jq -n .' 'jq -n .' \
        --command-name 'tpm2 --version' 'tpm2 --version' >/dev/null
    print_table "$results"
    rm "$results"
}

print_table() {
    printf 'Start to exit, 200 runs\n%-18s %12s %12s %16s\n' command 'median ms' 'min ms' 'median / ours'
    jq --raw-output '.results[0].median as $ours | .results[]
        | [.command, .median * 1000, .min * 1000, .median / $ours] | @tsv' "$1" |
        while IFS=$'\t' read -r command median min ratio; do
            LC_ALL=C printf '%-18s %12.2f %12.2f %16.2f\n' "$command" "$median" "$min" "$ratio"
        done
}

[[ $# -ge 1 ]] || fail "usage: scripts/sandbox bench/process_bench.sh FEATUREWATCH [OPTION ...]"
check_surroundings
install_input
featurewatch=$(realpath -- "$1")
shift
measure_start "$featurewatch"
echo
exec python3 "$(dirname -- "${BASH_SOURCE[0]}")/latency.py" "$featurewatch" "$@"
