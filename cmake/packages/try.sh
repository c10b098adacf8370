#!/bin/bash
# shellcheck disable=SC2016 # it is the shell inside that expands
# usage: try.sh PACKAGE.deb...
#
# Installs packages into a bare Debian 12 (debootstrap; as root), asks a store from each face as a new user would, and
# removes them: nothing may stay. DEBIAN_MIRROR names another mirror.
set -euo pipefail

[ $# -gt 0 ] || { echo "usage: $0 PACKAGE.deb..." >&2; exit 2; }
root=$(mktemp -d)
trap 'umount "$root/proc" 2>/dev/null; rm -rf --one-file-system "$root"' EXIT
debootstrap --variant=minbase bookworm "$root" "${DEBIAN_MIRROR:-http://deb.debian.org/debian}" >"$root.log" 2>&1 ||
    { tail -n 20 "$root.log" >&2; exit 1; }
rm -f "$root.log"
mount -t proc proc "$root/proc"
printf 'APT::Sandbox::User "root";\nDpkg::Use-Pty "0";\n' >"$root/etc/apt/apt.conf.d/90try"
mkdir "$root/debs"
cp "$@" "$root/debs"
cp /etc/resolv.conf "$root/etc/resolv.conf"

inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive \
    OPTIMISTIC_ABOUT_FILE_LOCKING=1 LC_ALL=C.UTF-8 bash -euc "$1"; }
files() { inside 'find / -xdev \( -path /var/lib/dpkg -o -path /var/cache -o -path /var/log -o -path /var/lib/apt -o -path /proc -o -path /tmp \) -prune -o -print | sort'; }

inside 'apt-get -qq update && apt-get -qq -y install --no-install-recommends sqlite3 gcc libc6-dev pkg-config python3 >/dev/null'
inside 'apt-get -qq -y install --no-install-recommends libxxhash-dev $(dpkg-deb -f /debs/libveldar0_*.deb Depends | sed "s/([^)]*)//g; s/,//g") libsqlite3-0 >/dev/null'
files >"$root/tmp/before"

echo "install"
inside 'apt-get -qq -y install --no-install-recommends /debs/*.deb >/dev/null'
echo "ask"
inside '
    mkdir /tmp/t && cd /tmp/t
    for i in 1 2 3 4 5; do echo "2024-05-01T00:00:0${i}Z level=info n=$i the shop"; done >app.log
    veldar --version | head -n 1
    veldar load app.log 2>&1 | head -n 1
    test "$(veldar count "level=info n>2")" = 3
    veldar search n=4
    dictscan .veldar/bucket-000001/*.tsidx "n::*" | tail -n 1
    python3 -c "
import veldar
with veldar.open(\".veldar\") as store:
    assert store.count(\"n>2\") == 3
    print(next(iter(store.search(\"n=5\"))).raw)"
    test "$(veldar sql .veldar "select count(*) from events")" = 5
    printf "#include <veldar.h>\n#include <stdio.h>\nint main(void) { puts(veldar_version()); return 0; }\n" >v.c
    gcc v.c $(pkg-config --cflags --libs libveldar) -o v && ./v
    test -s /usr/share/man/man1/veldar-search.1.gz
    cd / && rm -r /tmp/t
'
echo "remove"
inside 'apt-get -qq -y purge $(for deb in /debs/*.deb; do dpkg-deb -f $deb Package; done) >/dev/null'
files >"$root/tmp/after"
diff "$root/tmp/before" "$root/tmp/after" && echo "nothing stays"
