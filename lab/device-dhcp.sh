#!/bin/sh
# What a LAN device of the lab does with its lease: takes the address and the default route, or lets go of both.
case "$1" in
bound | renew)
    case "$(ip -4 -o addr show dev "$interface")" in
    *" $ip/${mask:-24} "*) ;; # it has it: who looks meanwhile finds it
    *)
        ip -4 addr flush dev "$interface"
        ip addr add "$ip/${mask:-24}" broadcast + dev "$interface"
        ;;
    esac
    [ -z "$router" ] || ip route replace default via "${router%% *}" dev "$interface"
    ;;
deconfig)
    ip -4 addr flush dev "$interface"
    ;;
esac
