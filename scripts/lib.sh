# shellcheck shell=bash
# Functions for several scripts. Source it; it starts nothing.

say() {
    printf '%s\n' "$*" >&2
}

die() {
    say "${0##*/}: $*"
    exit 1
}

# Runs a command as root.
asRoot() {
    if ((EUID == 0)); then
        "$@"
    else
        sudo -- "$@"
    fi
}

# Another apt may be running, on a fresh machine often for minutes. apt-get itself waits only for
# the lock of the installed packages, not for that of the lists.
updatePackageLists() {
    local lock=/var/lib/apt/lists/lock end=$((SECONDS + 600))
    while [[ -e $lock ]] && grep -q ":$(stat -c %i "$lock") " /proc/locks && ((SECONDS < end)); do
        sleep 1
    done
    asRoot apt-get update -q
}

installPackages() {
    asRoot env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
        -o DPkg::Lock::Timeout=600 "$@" </dev/null
}

# Runs a command as the user at the keyboard, also under `sudo ./run`: build files stay theirs.
asUser() {
    if ((EUID == 0)) && ((${SUDO_UID:-0} != 0)); then
        sudo -u "#$SUDO_UID" -- "$@"
    else
        "$@"
    fi
}

# True when a daemon runs: a process of its name without arguments, as opposed to a client.
daemonRuns() {
    local commandLine
    local -a words
    for commandLine in /proc/[0-9]*/cmdline; do
        # A process may end between the listing and the reading.
        { mapfile -d '' -t words <"$commandLine"; } 2>/dev/null || continue
        if ((${#words[@]} == 1)) && [[ ${words[0]##*/} == quillwick ]]; then
            return 0
        fi
    done
    return 1
}
