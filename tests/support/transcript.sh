#!/bin/bash
# Prints a transcript anew: its commands, each with what it says now. usage: transcript.sh FILE TOOLS_DIRECTORY
# "$ " begins a command of the shell and "+ " goes on with it; what it prints is behind "> ", what it says besides behind
# "! ", how it ends behind "? ". What differs from run to run is replaced: the directory by @, the ids of slices by ID,
# sizes of indexes by N, seconds by T.
set -o pipefail
file=$(realpath "$1") tools=$(realpath "$2")
place=$(mktemp -d /tmp/veldar-transcript-XXXXXX)  # of one length: sizes depend on it
trap 'rm -rf "$place"' EXIT
export DATA=${file%/transcripts/*} PATH="$tools/veldar:$tools:$PATH" HOME="$place" TMPDIR="$place" TZ=UTC LC_ALL=C COLUMNS=80
unset VELDAR_STORE VELDAR_SQLITE XDG_CONFIG_HOME
mkdir "$place/@" && cd "$place/@" || exit 1

say() {
    (eval "$1") >../out 2>../err </dev/null
    local status=$?
    sed '1s/^/$ /; 2,$s/^/+ /' <<<"$1"
    awk '{ print "> " $0 }' ../out
    awk '{ print "! " $0 }' ../err
    [ $status = 0 ] || echo "? $status"
}

command=
while IFS= read -r line; do
    case $line in
        '+ '*) command+=$'\n'${line#+ } && continue ;;
    esac
    [ -z "$command" ] || say "$command"
    command=
    case $line in
        '$ '*) command=${line#\$ } ;;
        '> '* | '! '* | '? '*) ;;
        *) echo "$line" ;;
    esac
done < <(cat "$file" && echo '? end') | sed -E "s#$place/@#@#gI; s#$place#@@#g"'
s/(-?[0-9]+--?[0-9]+)-[0-9]+(\.[a-z.-]*tsidx)/\1-ID\2/g
s/(veldar-salvage-)[[:alnum:]]{6}/\1ID/g
s/[0-9.,]+ (bytes|kB) of index/N bytes of index/; s/, [0-9.]+ s($|;| )/, T s\1/'
