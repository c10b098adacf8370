#!/bin/bash
# --on over a real ssh server on a loopback port: machines that answer, hang, refuse, and are killed half-way.
#   tests/hosts.sh VELDAR
set -euo pipefail
readonly VELDAR=$1
for program in parallel ssh /usr/sbin/sshd; do
    command -v "$program" >/dev/null || { echo "hosts.sh: no $program: skipped"; exit 77; }
done

scratch=$(mktemp -d)
sshd_id=
trap '[ -z "$sshd_id" ] || kill "$sshd_id"; rm -rf "$scratch"' EXIT
cd "$scratch"
mkdir tmp
export TMPDIR=$scratch/tmp
export OPTIMISTIC_ABOUT_FILE_LOCKING=1 VELDAR_REMOTE=$VELDAR PARALLEL_HOME=$scratch/parallel
fail() { printf 'hosts.sh: %s\n' "$*" >&2; cat err >&2; exit 1; }

for i in 1 2 3; do
    seq -f "2024-05-01T00:0$i:0%gZ level=info from $i" 0 9 >"log$i"
    "$VELDAR" -s "store '$i" load "log$i" 2>/dev/null
    "$VELDAR" -s all load "log$i" 2>/dev/null
done

ssh-keygen -q -t ed25519 -N '' -f key && ssh-keygen -q -t ed25519 -N '' -f host_key
cp key.pub authorized
[ "$(id -u)" -ne 0 ] || mkdir -p /run/sshd
port=$((20000 + $$ % 20000))
while (: >"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
cat >sshd_config <<CONFIG
ListenAddress 127.0.0.1
Port $port
HostKey $scratch/host_key
AuthorizedKeysFile $scratch/authorized
PidFile none
StrictModes no
UsePAM no
AcceptEnv OPTIMISTIC_ABOUT_FILE_LOCKING
CONFIG
cat >ssh_config <<CONFIG
Host web*
    HostName 127.0.0.1
    Port $port
Host refuses
    HostName 127.0.0.1
    Port 1
Host *
    IdentityFile $scratch/key
    IdentitiesOnly yes
    StrictHostKeyChecking no
    UserKnownHostsFile /dev/null
    LogLevel ERROR
    SendEnv OPTIMISTIC_ABOUT_FILE_LOCKING
CONFIG
export VELDAR_SSH="ssh -F $scratch/ssh_config"
/usr/sbin/sshd -D -f sshd_config 2>sshd_log &
sshd_id=$!
for _ in $(seq 50); do ssh -F ssh_config web true 2>err && break; sleep 0.1; done
ssh -F ssh_config web true 2>err || fail "the ssh server does not answer"

printf '%s\n' "web1:$scratch/store '1" "web2:$scratch/store '2" ":$scratch/store '3" >hosts
same() { # the same question to the machines and to one store
    "$VELDAR" "$@" --on hosts >there 2>err || fail "$* ends with $?"
    "$VELDAR" -s all "$@" >here
    diff here there >&2 || fail "$* differs"
}
same search level=info -n 25
same search '"from 2"' --fields level --format csv
# shellcheck disable=SC2016  # what a shell would expand must come through as it is
same count 'level=info OR "it'\''s $HOME"'
[ "$("$VELDAR" count '*' --on <(cat hosts))" = 30 ] || fail "machines of a pipe"
"$VELDAR" -s all count '*' --partial >part
[ "$("$VELDAR" merge-answers <(cat part))" = 30 ] || fail "an answer of a pipe"
same stats --by level --every 20s --agg count,dc\(source\)
same terms 'level=*'
same seen from

# One that hangs, one that refuses, one that is killed half-way: named, and the others' answer is there.
cat >hangs <<'SCRIPT'
#!/bin/sh
exec sleep 600
SCRIPT
cat >dies <<SCRIPT
#!/bin/sh
"$VELDAR" "\$@" | head -c 40
kill -9 \$\$
SCRIPT
chmod +x hangs dies
cat >remote <<SCRIPT
#!/bin/sh
case "\$2" in */hang) exec $scratch/hangs ;; */die) shift 2; exec $scratch/dies -s "$scratch/store '2" "\$@" ;; esac
exec $VELDAR "\$@"
SCRIPT
chmod +x remote
printf '%s\n' "web1:$scratch/store '1" "web2:$scratch/hang" "web3:$scratch/die" refuses ":$scratch/store '3" >hosts
status=0
VELDAR_REMOTE=$scratch/remote "$VELDAR" count level=info --on hosts --timeout 15 >there 2>err || status=$?
[ "$status" -eq 3 ] || fail "status $status where machines are missing"
[ "$(cat there)" = 20 ] || fail "$(cat there) events of 20"
for name in "web2:$scratch/hang: no answer: not in time" "web3:$scratch/die: no answer: ended with" \
    'refuses: no answer: ssh: connect'; do
    grep -qF "$name" err || fail "$name is not told"
done
! grep -q web1 err || fail "web1 is named"
# Who hangs up leaves nothing behind; nor does a program of that name that is another.
printf '#!/bin/sh\necho $$ >>%s/ids\nexec sleep 600\n' "$scratch" >hangs
VELDAR_SSH="$scratch/hangs" "$VELDAR" count '*' --on hosts >there 2>err &
touch ids
for _ in $(seq 300); do [ "$(wc -l <ids)" -lt 4 ] || break; sleep 0.1; done
sleep 1 # a job that begins while all is ended may go on: parallel does not know it yet
kill -HUP $!
status=0
wait $! || status=$?
[ "$status" -eq 130 ] || fail "status $status of one that was hung up"
[ -s ids ] || fail "nobody was asked"
while read -r id; do
    for _ in $(seq 300); do grep -qs . "/proc/$id/cmdline" || continue 2; sleep 0.1; done
    fail "ssh goes on"
done <ids
mkdir other
printf '#!/bin/sh\nexit 1\n' >other/parallel && chmod +x other/parallel
seq -f 'web%g' 3000 >hosts
status=0
PATH=$scratch/other:$PATH "$VELDAR" count '*' --on hosts >there 2>err || status=$?
[ "$status" -eq 3 ] || fail "status $status with another parallel"
[ -z "$(ls -A tmp)" ] || fail "something stays"
echo "hosts.sh: all passed"
