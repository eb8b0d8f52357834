# SPDX-License-Identifier: MIT
# Functions for the scripts. Each sources this file after it has changed to the project's root.

say() { printf '\n== %s\n' "$*"; }

# The user's name is part of the id of a server's single instance, and a bare environment lacks it.
export USER="${USER:-$(id -un)}"

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# need_packages NAME...: installs the Debian packages that are missing.
need_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null | grep -q '^ii' || missing+=("$package")
    done
    if [ ${#missing[@]} = 0 ]; then return; fi
    say "Installing: ${missing[*]}"
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -qq -y --no-install-recommends "${missing[@]}" >/dev/null
}

flakes=()

# run_tests DIR OPTION...: runs the tests of a build folder, with these options of ctest. A test that fails runs once
# more, alone. If it passes then, it is added to the list "flakes" and counts as passed. If it fails again, run_tests
# fails.
run_tests() {
    local dir=$1 list=$1/Testing/Temporary/LastTestsFailed.log status=0 failed again="" name
    shift
    rm -f "$list"
    ctest --test-dir "$dir" --output-on-failure --no-tests=error "$@" || status=$?
    # Without a list of failed tests ctest itself has failed.
    if [ $status = 0 ] || [ ! -s "$list" ]; then return $status; fi
    failed=$(cut -d: -f2- "$list")
    say "Once more, one by one:" $failed
    status=0
    ctest --test-dir "$dir" --output-on-failure --rerun-failed || status=$?
    # ctest leaves the old list when none has failed.
    if [ $status != 0 ]; then again=$(cut -d: -f2- "$list"); fi
    for name in $failed; do
        grep -qxF -- "$name" <<<"$again" || flakes+=("$dir: $name")
    done
    return $status
}

print_flakes() {
    if [ ${#flakes[@]} = 0 ]; then return; fi
    say "Flakes: failed once, passed alone"
    printf '%s\n' "${flakes[@]}"
}

build_packages=(g++ cmake ninja-build pkg-config qt6-base-dev libjsoncpp-dev libssl-dev libxau-dev libxcb1-dev libpng-dev
    libseccomp-dev)
# The first line is for sessions, the second one for "zarvoctl connect".
run_packages=(tigervnc-standalone-server xauth openssl xterm xfonts-base openbox
    tigervnc-viewer openssh-client)
