#!/bin/sh
# Sets up and empties the iptables and ebtables chains of the IPTV service, before the plug-in starts. Safe to run at any
# time while it does not run: what an earlier run left in the chains goes, nothing else is touched. What stands in the
# tables is read once and changed at once: a table changes as a whole or not at all.
set -eu

# Each rule as iptables-save tells it. With the word "plan" this is all that happens: it is printed, for who looks whether
# it still holds.
plan='
*raw
:PREROUTING_zep_ACCEPT - [0:0]
:PREROUTING_zep_DROP - [0:0]
unhook PREROUTING PREROUTING_zep_ACCEPT
unhook PREROUTING PREROUTING_zep_DROP
# What is accepted on the IPTV interface besides the mapped WAN addresses: multicast and limited broadcast.
-A PREROUTING_zep_ACCEPT -d 224.0.0.0/4 -j ACCEPT
-A PREROUTING_zep_ACCEPT -d 255.255.255.255/32 -j ACCEPT
-A PREROUTING_zep_DROP -j DROP
# The jumps of the plug-in come after it: answers to the own DHCP clients of the gateway always arrive.
once -A PREROUTING -p udp -m udp --dport 68 -j ACCEPT
COMMIT

*nat
:POSTROUTING_IPTV - [0:0]
:PREROUTING_IPTV - [0:0]
:POSTROUTING_zep - [0:0]
:PREROUTING_zep - [0:0]
:POSTROUTING_ZEP - [0:0]
once -A POSTROUTING -j POSTROUTING_IPTV
once -A POSTROUTING -j POSTROUTING_ZEP
once -A PREROUTING -j PREROUTING_IPTV
COMMIT

*filter
:FORWARD_zep - [0:0]
:IPTV_Out - [0:0]
:FORWARD_IPTV2Lan - [0:0]
:FORWARD_ZEP - [0:0]
:FORWARD_ZEP_Services - [0:0]
# The plug-in accepts what its devices send, and the policy of the firewall tells whether that holds on the IPTV
# interface; an earlier version called FORWARD_zep directly. What comes in for the devices was mapped to them (DNAT), or
# answers them.
unhook FORWARD FORWARD_zep
-A IPTV_Out -j FORWARD_zep
once -A FORWARD -j FORWARD_IPTV2Lan
once -A FORWARD -j FORWARD_ZEP
once -A FORWARD -m conntrack --ctstate RELATED,ESTABLISHED,DNAT -j ACCEPT
# What the multicast daemon forwards.
once -A FORWARD -d 224.0.0.0/4 -j ACCEPT
COMMIT'
if [ "${1:-}" = plan ]; then
    printf '%s\n' "$plan"
    exit
fi

# Between reading and changing nobody else may change them. The lock is the firewall script's, too; what either has left
# running when it was killed holds it, and ends before this begins.
lock=/run/zep_firewall.lock
wait_for_lock() {
    turns=0
    until flock -n 9; do
        turns=$((turns + 1))
        [ "$turns" -le 1000 ] || return 1 # after 20 s
        sleep 0.02 || sleep 1
    done
}
if ! command -v flock >/dev/null; then
    echo "chains.sh: there is no flock; going on without a lock" >&2
elif [ -h "$lock" ] || ! (umask 077 && : >>"$lock") 2>/dev/null; then
    echo "chains.sh: $lock is no file that can be locked; going on without a lock" >&2
else
    exec 9>>"$lock"
    wait_for_lock || echo "chains.sh: $lock is held by another for too long; going on without a lock" >&2
fi

# changes SAVED PLAN: what "restore" is told to bring about the plan, which is written as it wants it, but for two words:
#   once RULE             the rule, as it is saved, stands in its chain, once
#   unhook CHAIN TARGET   no rule of the chain jumps to the target any more
changes() {
    printf '%s\n' "$1" | plan=$2 awk '
        /^\*/ { table = $1 }
        /^-A / { there[table, $0] }
        /^-A / && $(NF - 1) == "-j" { jumps[table, $2, $NF] = jumps[table, $2, $NF] "-D" substr($0, 3) "\n" }
        END {
            lines = split(ENVIRON["plan"], line, "\n")
            for (i = 1; i <= lines; ++i) {
                split(line[i], word, " ")
                rule = substr(line[i], length("once ") + 1)
                if (word[1] ~ /^\*/)
                    table = word[1]
                if (word[1] == "unhook")
                    printf "%s", jumps[table, word[2], word[3]]
                else if (word[1] != "once")
                    print line[i]
                else if (!((table, rule) in there))
                    print rule
            }
        }'
}

saved=$(/usr/sbin/iptables-save)
told=$(changes "$saved" "$plan")
printf '%s\n' "$told" | /usr/sbin/iptables-restore --noflush -w 5

# Each of these has no say of its own, and is called once from its built-in chain, after all that stands there.
saved=$(/usr/sbin/ebtables-save)
told=$(changes "$saved" '
*nat
:POSTROUTING_No_DHCP RETURN
:POSTROUTING_No_IGMP RETURN
:POSTROUTING_Only_IGMP RETURN
unhook POSTROUTING POSTROUTING_No_DHCP
unhook POSTROUTING POSTROUTING_No_IGMP
unhook POSTROUTING POSTROUTING_Only_IGMP
-A POSTROUTING -j POSTROUTING_No_DHCP
-A POSTROUTING -j POSTROUTING_No_IGMP
-A POSTROUTING -j POSTROUTING_Only_IGMP

*filter
:FORWARD_Isolation RETURN
unhook FORWARD FORWARD_Isolation
-A FORWARD -j FORWARD_Isolation')
printf '%s\n' "$told" | /usr/sbin/ebtables-restore --noflush
