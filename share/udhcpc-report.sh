#!/bin/sh
# Tells keelhost, which reads this output, what a WAN DHCP client obtained: a line per option, then the event. Nothing is
# changed here; what follows from a lease is decided by the host. An STB waits for it meanwhile: no program is started.
case $1 in
bound | renew)
    number=1
    while [ "$number" -lt 255 ]; do
        value=
        eval "value=\${opt$number:-}"
        case $value in
        '' | *[!0-9a-f]*) ;;
        *) echo "@option|$number|$value" ;;
        esac
        number=$((number + 1))
    done
    ;;
esac
echo "@$1|${ip:-}|${subnet:-}|${ntpsrv:-}|${staticroutes:-}|${router:-}|${dns:-}|${serverid:-}"
