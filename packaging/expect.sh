# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # failures and patience: of this file and of who sources it
# What the trials expect of a system that runs beside this one. Who sources it defines onSystem, which
# runs a shell's command line there, and sets patience, the seconds for an expectation to come true.

failures=0
# Matches all output, over lines.
any='(.|[[:space:]])*'

# expect WHAT PATTERN COMMAND: the command's whole output comes to match within the patience.
expect() {
    local what=$1 pattern=$2 end=$((SECONDS + patience)) got
    shift 2
    while
        got=$(onSystem "$@" 2>&1) || true
        [[ ! $got =~ ^($pattern)$ ]]
    do
        if ((SECONDS >= end)); then
            printf 'NOT OK  %s, but: %s\n' "$what" "$got"
            failures=$((failures + 1))
            return
        fi
        sleep 0.2
    done
    printf 'ok      %s (%d s)\n' "$what" "$SECONDS"
}
