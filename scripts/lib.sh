# SPDX-License-Identifier: MIT
# What the scripts share; sourced by them, with the project's root as the working directory.

say() { printf '\n== %s\n' "$*"; }

# The user's name is part of what keeps one user's server apart from another's; a bare environment lacks it.
export USER="${USER:-$(id -un)}"

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# need_packages NAME...: installs those Debian packages that are missing.
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

build_packages=(g++ cmake ninja-build pkg-config qt6-base-dev libjsoncpp-dev libssl-dev libxau-dev libxcb1-dev libpng-dev)
# The sessions, and below them what "zarvoctl connect" runs to get into one.
run_packages=(tigervnc-standalone-server xauth openssl xterm xfonts-base openbox
    tigervnc-viewer openssh-client)
