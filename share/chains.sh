#!/bin/sh
# Sets up and empties the iptables and ebtables chains of the IPTV service, before the plug-in starts. Safe to run at any
# time while it does not run: what an earlier run left in the chains goes, nothing else is touched.
set -eu

ipt() {
    /usr/sbin/iptables -w 5 "$@"
}

ebt() {
    /usr/sbin/ebtables "$@"
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

# unhook TABLE CHAIN TARGET: no rule of the chain jumps to the target any more
unhook() {
    ipt -t "$1" -S "$2" | grep -- "-j $3\$" | sed 's/^-A/-D/' | while read -r rule; do
        # shellcheck disable=SC2086 # a rule is a list of words
        ipt -t "$1" $rule
    done
}

# ebchain TABLE CHAIN NAME: there, empty, without a say of its own, and called once from the built-in chain
ebchain() {
    ebt -t "$1" -N "$3" -P RETURN 2>/dev/null || ebt -t "$1" -F "$3"
    ebt -t "$1" -P "$3" RETURN
    while ebt -t "$1" -D "$2" -j "$3" 2>/dev/null; do :; done # it cannot be asked whether a rule is there
    ebt -t "$1" -A "$2" -j "$3"
}

unhook raw PREROUTING PREROUTING_zep_ACCEPT
unhook raw PREROUTING PREROUTING_zep_DROP
chain raw PREROUTING_zep_ACCEPT
chain raw PREROUTING_zep_DROP
chain nat POSTROUTING_IPTV
chain nat PREROUTING_IPTV
chain nat POSTROUTING_zep
chain nat PREROUTING_zep
chain nat POSTROUTING_ZEP
chain filter FORWARD_zep
chain filter IPTV_Out
chain filter FORWARD_IPTV2Lan
chain filter FORWARD_ZEP
chain filter FORWARD_ZEP_Services
ebchain nat POSTROUTING POSTROUTING_No_DHCP
ebchain nat POSTROUTING POSTROUTING_No_IGMP
ebchain nat POSTROUTING POSTROUTING_Only_IGMP
ebchain filter FORWARD FORWARD_Isolation

# What is accepted on the IPTV interface besides the mapped WAN addresses: multicast and limited broadcast.
ipt -t raw -A PREROUTING_zep_ACCEPT -d 224.0.0.0/4 -j ACCEPT
ipt -t raw -A PREROUTING_zep_ACCEPT -d 255.255.255.255 -j ACCEPT
ipt -t raw -A PREROUTING_zep_DROP -j DROP
# The plug-in's jumps come after it: answers to the gateway's own DHCP clients always arrive.
once raw PREROUTING -p udp --dport 68 -j ACCEPT

once nat POSTROUTING -j POSTROUTING_IPTV
once nat POSTROUTING -j POSTROUTING_ZEP
once nat PREROUTING -j PREROUTING_IPTV

# The plug-in accepts what its devices send, and the firewall's policy tells whether that holds on the IPTV interface;
# an earlier version called FORWARD_zep directly. What comes in for the devices was mapped to them (DNAT), or answers
# them.
unhook filter FORWARD FORWARD_zep
ipt -t filter -A IPTV_Out -j FORWARD_zep
once filter FORWARD -j FORWARD_IPTV2Lan
once filter FORWARD -j FORWARD_ZEP
once filter FORWARD -m conntrack --ctstate RELATED,ESTABLISHED,DNAT -j ACCEPT
# What the multicast daemon forwards.
once filter FORWARD -d 224.0.0.0/4 -j ACCEPT
