#!/bin/sh
# Tells keelhost, which reads this output, what a WAN DHCP client obtained: a line per option, then the event. Nothing is
# changed here; what follows from a lease is decided by the host. An STB waits for it meanwhile: no program is started.
# What comes from the operator is passed on only if it is hexadecimal, or addresses, prefixes and blanks: anything else
# might hold a line's end, and lines of its own making.
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
nak | deconfig | leasefail) ;;
*) exit 0 ;;
esac
event="@$1"
for name in ip subnet ntpsrv staticroutes router dns serverid; do
    eval "value=\${$name:-}"
    case $value in
    *[!0-9./\ ]*) value=refused ;;
    esac
    event="$event|$value"
done
echo "$event"
