# shellcheck shell=bash
# Functions for several scripts. Source it; it starts nothing.

say() {
    printf '%s\n' "$*" >&2
}

die() {
    say "${0##*/}: $*"
    exit 1
}

# For scripts that take arguments: prints the indented lines of their opening comment.
usage() {
    sed -n '/^#   /s/^# *//p' "$0" >&2
    exit 2
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

# Prints lines for sources.list: this machine's release and its updates, of Debian alone, because other
# vendors need not know every architecture. Security updates are left out. They are for the libraries
# that the board itself runs, keep the interfaces, and their indexes are at times out of step on mirrors.
debianSources() {
    # shellcheck disable=SC2016 # apt-get replaces the names
    local -a query=(apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)'
        'Created-By: Packages' 'Origin: Debian' 'Label: Debian')
    # Without the sources' indexes their origin is not known.
    [[ -n $("${query[@]}") ]] || updatePackageLists >&2
    "${query[@]}" | sort -u | grep . || die "apt has no source of Debian packages"
}

projectVersion() {
    sed -n 's/^project(quillwick VERSION \([0-9.]*\).*/\1/p' "$1/CMakeLists.txt"
}

# Prints the defaults of the board's own values, as options of CMake.
boardOptions() {
    sed -n 's/^set(\(QUILLWICK_[A-Z0-9_]*\) \([^ ]*\) CACHE .*/-D\1=\2/p' "$1/cmake/board.cmake"
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
