#!/bin/sh
# The firewall's rules for the services that go out on the data interface:
#   zep_firewall.sh main_rules A|D INTERFACE    the interface leads to the services and hides the LAN's addresses
#   zep_firewall.sh aux_rules A|D ADDRESS       the LAN device with that address may use them
# A adds, D deletes; both may be repeated. Silent when done, else a message and a non-zero status. Several may be started
# at the same time: they run one after the other, in the order of their start.
set -eu
LC_ALL=C
export LC_ALL
lock=/run/zep_firewall.lock

fail() {
    echo "zep_firewall.sh: $1" >&2
    exit 2
}

warn() {
    echo "zep_firewall.sh: $1" >&2
}

# When a process was started, in hundredths of a second since the boot, as $ticks; false when it has ended.
started() {
    { read -r stat <"/proc/$1/stat"; } 2>/dev/null || return 1
    # shellcheck disable=SC2086 # a list of words; before the bracket stands the program's name
    set -- ${stat##*) }
    ticks=${20}
    [ "$1" != Z ]
}

# Whether no run of this script is at work that was started before this one.
is_first() {
    for comm in $(grep -lsx zep_firewall.sh /proc/[0-9]*/comm); do
        pid=${comm#/proc/}
        pid=${pid%/comm}
        started "$pid" || continue
        [ "$ticks" -ge "$own_ticks" ] || return 1
        [ "$ticks" -gt "$own_ticks" ] || [ "$pid" -ge $$ ] || return 1
    done
}

# soon COMMAND...: waits until it succeeds; false when it does not for some 20 s
soon() {
    turns=0
    until "$@"; do
        turns=$((turns + 1))
        [ "$turns" -le 1000 ] || return 1
        sleep 0.02 || sleep 1
    done
}

# A lock goes to the one that asks first, which need not be the one that was started first: so each run lets the earlier
# ones end, and then takes the lock, which a killed run's last command may still hold.
take_turn() {
    if started $$; then
        own_ticks=$ticks
        soon is_first || warn "an earlier run does not end; going on"
    fi
    if ! command -v flock >/dev/null; then
        warn "there is no flock; going on without a lock"
    elif [ -h "$lock" ] || ! (umask 077 && : >>"$lock") 2>/dev/null; then
        warn "$lock is no file that can be locked; going on without a lock"
    else
        exec 9>>"$lock"
        soon flock -n 9 || warn "$lock is held by another for too long; going on without a lock"
    fi
}

# One octet of an address, written the one way that no program reads as octal.
octet() {
    case $1 in
    '' | *[!0-9]* | 0?* | ????*) return 1 ;;
    esac
    [ "$1" -le 255 ]
}

is_address() {
    rest=$1.
    for _ in 1 2 3 4; do
        octet "${rest%%.*}" || return 1
        rest=${rest#*.}
    done
    [ -z "$rest" ]
}

is_interface() {
    case $1 in
    '' | -* | *[!A-Za-z0-9._:@-]*) return 1 ;;
    esac
    [ ${#1} -le 15 ]
}

ipt() {
    /usr/sbin/iptables -w 5 "$@"
}

# has TABLE CHAIN RULE...: 1 also stands for a chain that is not there; what else goes wrong ends the script.
has() {
    table=$1
    shift
    status=0
    said=$(ipt -t "$table" -C "$@" 2>&1) || status=$?
    [ "$status" -le 1 ] || fail "$said"
    return "$status"
}

# rule A|D TABLE CHAIN RULE...: the rule stands in the chain once, or not at all
rule() {
    operation=$1
    shift
    if [ "$operation" = A ]; then
        has "$@" && return
    else
        has "$@" || return 0
    fi
    table=$1
    shift
    ipt -t "$table" "-$operation" "$@"
}

[ $# -eq 3 ] || fail "usage: zep_firewall.sh main_rules A|D INTERFACE | aux_rules A|D ADDRESS"
case $2 in
A | D) ;;
*) fail "not an operation: $2" ;;
esac
case $1 in
main_rules)
    is_interface "$3" || fail "not an interface name: $3"
    take_turn
    rule "$2" filter FORWARD_ZEP -o "$3" -j FORWARD_ZEP_Services
    rule "$2" nat POSTROUTING_ZEP -o "$3" -j MASQUERADE
    ;;
aux_rules)
    is_address "$3" || fail "not an IPv4 address: $3"
    take_turn
    rule "$2" filter FORWARD_ZEP_Services -s "$3" -j ACCEPT
    ;;
*) fail "not a set of rules: $1" ;;
esac
