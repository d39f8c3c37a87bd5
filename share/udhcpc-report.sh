#!/bin/sh
# Tells keelhost, which reads this output, what a WAN DHCP client obtained: a line per option, then the event. Nothing is
# changed here; what follows from a lease is decided by the host.
for option in $(env | sed -n 's/^opt\([0-9][0-9]*\)=\([0-9a-f]*\)$/\1|\2/p'); do
    echo "@option|$option"
done
echo "@$1|${ip:-}|${subnet:-}|${ntpsrv:-}|${staticroutes:-}|${router:-}|${dns:-}|${serverid:-}"
