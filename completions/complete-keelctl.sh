#!/bin/sh
# What may stand in the place of the last word of a keelctl command line, one candidate a line:
#   complete-keelctl.sh KEELCTL WORD...
# A candidate that ends in "." or "=" is to be gone on with. The completions of the shells ask this. Commands and options
# are those that --help tells, paths, parameters and STBs those of the host that runs; without one there are none of these.
set -u

keelctl=$1
shift
socket='' command='' path='' used=' '
while [ $# -gt 1 ]; do
    case "$1" in
    --socket | -n | --lines | -o | --output | -t | --time | --since)
        [ $# -gt 2 ] || exit 0
        [ "$1" != --socket ] || socket=$2
        shift
        ;;
    --socket=*) socket=${1#*=} ;;
    -*) ;;
    *)
        if [ -z "$command" ]; then
            command=$1
        elif [ -z "$path" ]; then
            path=$1
        else
            used="$used${1%%=*} "
        fi
        ;;
    esac
    shift
done
word=${1:-}

# A host that does not answer must not hold the shell.
ask() {
    timeout 2 "$keelctl" ${socket:+--socket "$socket"} "$@" 2>/dev/null
}

help_of() {
    # shellcheck disable=SC2086 # no command is no word
    "$keelctl" $1 --help 2>/dev/null
}

options() {
    { help_of ''; help_of "$command"; } | awk '/^  -/ { count = split($1, one, ","); for (i = 1; i <= count; ++i) print one[i] }'
}

commands() {
    help_of '' | awk '/^[^ ]|^$/ { on = /^Subcommands:/; next } on && /^  [^ ]/ { print $1 }'
}

# children OBJECT: the objects directly below it, and each that has more below it once again with a dot. In the JSON text
# of a tree every object begins with its name and ends with its children, and no text of a value looks like either.
children() {
    tree=$(ask -S get "$1") || return 1
    printf '%s\n' "$tree" | awk -v parent="$1" '{
        count = split($0, object, /\{"name":"/)
        for (i = 2; i <= count; ++i) {
            name = substr(object[i], 1, index(object[i], "\"") - 1)
            closers = object[i]
            sub(/^.*"children":\[/, "", closers)
            gsub(/[^\]]/, "", closers)
            if (depth == 1) {
                name = (parent == "" ? "" : parent ".") name
                print name
                if (closers == "")
                    print name "."
            }
            depth += 1 - length(closers)
        }
    }'
}

paths() {
    parent=$word
    while :; do
        case "$parent" in
        *.*) parent=${parent%.*} ;;
        *) parent='' ;;
        esac
        # A dot may belong to the name of an instance: then there is no object before it, but one before an earlier dot.
        children "$parent" && return
        [ -n "$parent" ] || return
    done
}

# parameters OBJECT: the lines NAME=VALUE of the object itself.
parameters() {
    ask get "$1" | awk -v object="$1." '
        index($0, object) == 1 { $0 = substr($0, length(object) + 1) }
        /^[^.=]+=/' | while IFS= read -r line; do
        case "$used" in
        *" ${line%%=*} "*) ;;
        *) printf '%s\n' "$line" ;;
        esac
    done
}

# The values that a parameter may get are not told; the one that it has, and the other one of two, are a start.
settings() {
    parameters "$1" | awk -v word="$word" '
        index(word, "=") == 0 { sub(/=.*/, "="); print; next }
        index(word, substr($0, 1, index($0, "="))) == 1 {
            print
            if (sub(/=true$/, "=false") || sub(/=false$/, "=true"))
                print
        }'
}

stbs() {
    ask get Hosts.Host | awk '
        !/^Hosts\.Host\.[^.]+\.(HostName|Tags)=/ { next }
        { key = value = $0; sub(/^Hosts\.Host\./, "", key); sub(/\..*/, "", key); sub(/^[^=]*=/, "", value) }
        /HostName=/ { host[key] = value }
        /Tags=/ && (" " value " ") ~ / stb / { stb[key] }
        END { for (key in stb) print key in host && host[key] != "" ? host[key] : key }'
}

# What a command is given, it tells itself: an object's path and perhaps words after it, or an STB.
words() {
    given=$(help_of "$command" | awk '/^[^ ]|^$/ { on = /^Positionals:/; next } on')
    case "$path:$given" in
    ?*:*' words '*KEY*)
        first=$(children "$path" | head -n 1)
        [ -z "$first" ] || settings "$first"
        ;;
    ?*:*' words '*=VALUE*) settings "$path" ;;
    ?*:*' words '*) parameters "$path" | sed 's/=.*//' ;;
    :*' path '*) paths ;;
    :*' stb '*) stbs ;;
    :*' topic '*) printf '%s\n' "$given" | sed -n 's/.*{\(.*\)}.*/\1/p' | tr ',' '\n' ;;
    esac
}

case "$command:$word" in
*:-*) options ;;
:*) commands ;;
*) words ;;
esac | word=$word awk 'index($0, ENVIRON["word"]) == 1 && !told[$0]++'
