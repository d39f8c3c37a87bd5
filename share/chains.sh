#!/bin/sh
# Sets up and empties the iptables chains of the IPTV service, before the plug-in starts. Safe to run at any time while
# it does not run: what an earlier run left in the chains goes, nothing else is touched.
set -eu

ipt() {
    /usr/sbin/iptables -w 5 "$@"
}

# chain TABLE NAME: there, and empty
chain() {
    ipt -t "$1" -N "$2" 2>/dev/null || ipt -t "$1" -F "$2"
}

# once TABLE CHAIN RULE...: the rule stands in the chain, once
once() {
    table=$1
    shift
    ipt -t "$table" -C "$@" 2>/dev/null || ipt -t "$table" -A "$@"
}

# unhook TABLE TARGET: no rule of the built-in chain PREROUTING jumps to it any more
unhook() {
    ipt -t "$1" -S PREROUTING | grep -- "-j $2\$" | sed 's/^-A/-D/' | while read -r rule; do
        # shellcheck disable=SC2086 # a rule is a list of words
        ipt -t "$1" $rule
    done
}

unhook raw PREROUTING_zep_ACCEPT
unhook raw PREROUTING_zep_DROP
chain raw PREROUTING_zep_ACCEPT
chain raw PREROUTING_zep_DROP
chain nat POSTROUTING_IPTV
chain nat PREROUTING_IPTV
chain nat POSTROUTING_zep
chain nat PREROUTING_zep
chain filter FORWARD_zep

# What is accepted on the IPTV interface besides the mapped WAN addresses: multicast and limited broadcast.
ipt -t raw -A PREROUTING_zep_ACCEPT -d 224.0.0.0/4 -j ACCEPT
ipt -t raw -A PREROUTING_zep_ACCEPT -d 255.255.255.255 -j ACCEPT
ipt -t raw -A PREROUTING_zep_DROP -j DROP

once nat POSTROUTING -j POSTROUTING_IPTV
once nat PREROUTING -j PREROUTING_IPTV

# The plug-in accepts what its devices send; what comes in for them was mapped to them (DNAT), or answers them.
once filter FORWARD -j FORWARD_zep
once filter FORWARD -m conntrack --ctstate RELATED,ESTABLISHED,DNAT -j ACCEPT
