#!/bin/sh
# The firewall's rules for the services that go out on the data interface:
#   zep_firewall.sh main_rules A|D INTERFACE    the interface leads to the services and hides the LAN's addresses
#   zep_firewall.sh aux_rules A|D ADDRESS       the LAN device with that address may use them
# A adds, D deletes; both may be repeated. Silent when done, else a message and a non-zero status.
set -eu
LC_ALL=C
export LC_ALL

fail() {
    echo "zep_firewall.sh: $1" >&2
    exit 2
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
    rule "$2" filter FORWARD_ZEP -o "$3" -j FORWARD_ZEP_Services
    rule "$2" nat POSTROUTING_ZEP -o "$3" -j MASQUERADE
    ;;
aux_rules)
    is_address "$3" || fail "not an IPv4 address: $3"
    rule "$2" filter FORWARD_ZEP_Services -s "$3" -j ACCEPT
    ;;
*) fail "not a set of rules: $1" ;;
esac
