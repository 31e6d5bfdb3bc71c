# shellcheck shell=bash
# For the scripts beside this one: a minimal Debian of its own, made by debootstrap. Sourced; needs root.

# Makes a fresh system in the directory $root, which goes when the script ends. The base that it is copied from is made
# once, with the package sources that this machine has, and kept in build/chroot.
make_root() {
    local base=build/chroot/base codename mirror
    [ "$(id -u)" -eq 0 ] || { echo "${0##*/}: must be run by root, for debootstrap and chroot" >&2; exit 1; }
    scripts/setup --for package
    # shellcheck source=/dev/null
    codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
    # shellcheck disable=SC2016 # these are apt's own
    apt-get indextargets --format '$(ORIGIN) $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
        awk '$1 == "Debian" { print "deb", $2, $3, $4 }' | sort --unique >build/sources.list
    mirror=$(awk -v name="$codename" '$3 == name { print $2; exit }' build/sources.list)
    [ -n "$mirror" ] || { echo "${0##*/}: no package source for $codename; run apt-get update" >&2; exit 1; }
    if [ ! -e $base/.whole ]; then
        echo "== debootstrap, minimal $codename"
        rm -rf $base
        mkdir -p build/chroot
        debootstrap --variant=minbase "$codename" $base "$mirror" >build/chroot/debootstrap.log ||
            { tail -n 3 build/chroot/debootstrap.log >&2; exit 1; }
        cp build/sources.list $base/etc/apt/sources.list
        apt-config dump Acquire | grep --ignore-case proxy >$base/etc/apt/apt.conf.d/50proxy || true
        printf '#!/bin/sh\nexit 101\n' >$base/usr/sbin/policy-rc.d
        chmod 755 $base/usr/sbin/policy-rc.d
        touch $base/.whole
    fi
    root=$(mktemp --directory build/chroot/run.XXXXXX)
    trap 'rm -rf "$root"' EXIT
    cp --archive $base/. "$root"
    cp /etc/resolv.conf /etc/hosts "$root/etc"
}

# Runs a shell script inside, with processes and mounts of its own that end with it. With `alone` before it, it also has
# a loopback network of its own, so that any port is free.
inside() {
    local network=()
    if [ "$1" = alone ]; then
        network=(--net)
        shift
    fi
    # shellcheck disable=SC2016 # expanded by the inner shell
    unshare --mount --pid --fork --kill-child "${network[@]}" bash -c '
        mount -t proc proc "$1/proc"
        mount -t tmpfs -o size=64m tmpfs "$1/run"
        [ -z "$3" ] || ip link set lo up
        exec chroot "$1" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
            DEBIAN_FRONTEND=noninteractive bash -euo pipefail -c "$2"' _ "$root" "$1" "${network[*]}"
}
