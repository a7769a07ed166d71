#!/usr/bin/env bash
# usage: sandbox.sh [--local DIR] [--tmp DIR] COMMAND...
#
# Runs COMMAND as an ordinary user without capabilities, in user, mount and process namespaces of its own. /var/local
# and /var/tmp show the given directories, otherwise new ones that end with COMMAND. No process outlives COMMAND.
# COMMAND finds KY_SANDBOX=1 in its environment. The exit status is that of COMMAND, or 125 on wrong usage.
set -euo pipefail

die() {
    echo "sandbox: $*" >&2
    exit 125
}

local_mount=(--perms 0755 --tmpfs /var/local)
tmp_mount=(--perms 1777 --tmpfs /var/tmp)
while [ $# -ge 2 ]; do
    case $1 in
        --local) local_mount=(--bind "$2" /var/local) ;;
        --tmp) tmp_mount=(--bind "$2" /var/tmp) ;;
        *) break ;;
    esac
    shift 2
done
[[ $# -ge 1 && $1 != -* ]] || die "usage: $0 [--local DIR] [--tmp DIR] COMMAND..."
command -v bwrap >/dev/null || die "bwrap is missing; Debian's package bubblewrap has it"
case $(readlink -f -- "$(type -P -- "$1")" || true) in
    /var/local/* | /var/tmp/*) die "the sandbox hides /var/local and /var/tmp: copy $1 elsewhere" ;;
esac

if ! bwrap --unshare-user --unshare-pid --dev-bind / / --proc /proc true; then
    die "the kernel refuses the namespaces. What may have to be enabled:
  sysctl -w kernel.unprivileged_userns_clone=1             (if that setting exists)
  sysctl -w user.max_user_namespaces=10000                 (if the value is 0)
  sysctl -w kernel.apparmor_restrict_unprivileged_userns=0 (if that setting exists)
  in a container: --privileged"
fi
identity=()
[ "$(id -u)" -ne 0 ] || identity=(--uid 1000 --gid 1000) # file permissions do not bind root
exec bwrap --unshare-user --unshare-pid "${identity[@]}" --cap-drop ALL --die-with-parent \
    --dev-bind / / --proc /proc "${local_mount[@]}" "${tmp_mount[@]}" --setenv KY_SANDBOX 1 -- "$@"
