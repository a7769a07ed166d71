#!/usr/bin/env bash
# usage: packaging/acceptance.sh PACKAGE_DIR ROOT_DIR
#
# Installs the packages of PACKAGE_DIR on a Debian that systemd has booted in a container, and runs
# acceptance-guest.sh there. Needs root. ROOT_DIR keeps the Debian for the next run; what the container writes is kept
# in memory only, and no process, mount or control group remains.
set -euo pipefail
shopt -s inherit_errexit

SOURCE=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")
PREVIOUS_VERSION=0~previous # lower than any release
GUEST_PACKAGES=systemd,systemd-sysv,dbus,libjansson4,libstdc++6,man-db
BOOT_SECONDS=60
CONTROL_GROUP=kytfer-acceptance-$$
NSPAWN='' LEADER='' COMMAND=''

die() {
    echo "acceptance: $*" >&2
    exit 1
}

# make_root: the file system of the container, from the mirror that apt uses on this machine
make_root() {
    local suite mirror
    suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
    [ "$(cat "$ROOT.made" 2>/dev/null)" != "$suite $GUEST_PACKAGES" ] || return 0
    # shellcheck disable=SC2016  # the variable is apt's
    mirror=$(apt-get indextargets --format '$(REPO_URI)' \
        'Created-By: Packages' "Codename: $suite" 'Component: main' 'Label: Debian' | sed -n 1p)
    [ -n "$mirror" ] || die "apt has no mirror for $suite; see /etc/apt/sources.list"
    eval "$(apt-config shell http_proxy Acquire::http::Proxy)"
    export http_proxy=${http_proxy:-}
    rm -rf "$ROOT" "$ROOT.made"
    mkdir -p "$(dirname "$ROOT")"
    echo "Making a Debian $suite in $ROOT; takes about a minute, the first time only"
    debootstrap --variant=minbase --force-check-gpg --include="$GUEST_PACKAGES" "$suite" "$ROOT" "$mirror" \
        >"$WORK/debootstrap.log" 2>&1 || { tail -n 20 "$WORK/debootstrap.log" >&2; die "debootstrap failed"; }
    echo "$suite $GUEST_PACKAGES" >"$ROOT.made"
}

# prepare_packages: the built ones in new/, and in old/ the same with a lower version number
prepare_packages() {
    local package name
    mkdir "$WORK/guest/new" "$WORK/guest/old"
    for name in kytfer-tools libkytfer0.1; do
        package=$(find "$PACKAGES" -name "${name}_*.deb")
        [ -f "$package" ] || die "there must be one package $name in $PACKAGES; there is: ${package:-none}"
        cp "$package" "$WORK/guest/new"
        dpkg-deb -R "$package" "$WORK/repacked"
        sed -i "s/^Version: .*/Version: $PREVIOUS_VERSION/" "$WORK/repacked/DEBIAN/control"
        dpkg-deb -b "$WORK/repacked" "$WORK/guest/old/$name.deb" >/dev/null
        rm -r "$WORK/repacked"
    done
}

# control_groups: the folders of this run. Where systemd runs, systemd-nspawn gets a scope from it instead.
control_groups() {
    local hierarchy
    [ ! -d /run/systemd/system ] || return 0
    for hierarchy in /sys/fs/cgroup /sys/fs/cgroup/systemd /sys/fs/cgroup/unified; do
        [ ! -e "$hierarchy/cgroup.procs" ] || echo "$hierarchy/$CONTROL_GROUP"
    done
}

# boot: starts the container and waits for systemd in it
boot() {
    local group options=() deadline=$((SECONDS + BOOT_SECONDS))
    [ -d /run/systemd/system ] || options=(--keep-unit)
    (
        for group in $(control_groups); do
            mkdir "$group"
            echo "$BASHPID" >"$group/cgroup.procs"
        done
        # Ctrl-C is for this script only, which ends the container without an orderly shutdown.
        exec setsid setpriv --pdeathsig TERM systemd-nspawn --quiet --boot --directory="$ROOT" --volatile=overlay \
            --register=no "${options[@]}" --private-network --console=pipe --machine="$CONTROL_GROUP" \
            --bind-ro="$WORK/guest:/acceptance" </dev/null
    ) >"$WORK/nspawn.log" 2>&1 &
    NSPAWN=$!
    until in_guest systemctl is-system-running --wait >"$WORK/state" 2>&1; do
        if grep -q degraded "$WORK/state"; then
            in_guest systemctl --failed --no-pager >&2
            die "not all units of the container start"
        fi
        if [ "$SECONDS" -ge "$deadline" ] || ! kill -0 "$NSPAWN" 2>/dev/null; then
            cat "$WORK/state" "$WORK/nspawn.log" >&2
            die "the container does not boot"
        fi
        sleep 0.1
    done
}

# in_guest COMMAND...: runs it in the container as root. A signal to this script ends the wait.
in_guest() {
    LEADER=$(tr -d ' ' <"/proc/$NSPAWN/task/$NSPAWN/children") && [ -n "$LEADER" ] || return 1
    setpriv --pdeathsig KILL nsenter --target "$LEADER" --all -- \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 "$@" &
    COMMAND=$!
    wait "$COMMAND"
}

# cleanup: the end of the first process ends all others of the container, and then systemd-nspawn
cleanup() {
    local group
    if [ -n "$LEADER" ] && kill -0 "$NSPAWN" 2>/dev/null; then kill -KILL "$LEADER"; fi
    wait "$COMMAND" "$NSPAWN" 2>/dev/null || true
    for group in $(control_groups); do
        [ ! -d "$group" ] || find "$group" -depth -type d -exec rmdir {} +
    done
    rm -rf "$WORK"
}

[ $# -eq 2 ] || { echo "usage: packaging/acceptance.sh PACKAGE_DIR ROOT_DIR" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || die "needs root, to boot a container"
PACKAGES=$(readlink -e "$1") || die "there is no $1"
ROOT=$(readlink -m "$2")
WORK=$(mktemp -d)
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

mkdir "$WORK/guest"
chmod 755 "$WORK" "$WORK/guest"
make_root
prepare_packages
cp "$SOURCE/acceptance-guest.sh" "$WORK/guest"
echo "Booting the container"
boot
in_guest /acceptance/acceptance-guest.sh
