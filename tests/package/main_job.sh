#!/bin/bash
# Runs in the root that holds the packages: the units, and queries of a real register.
set -eu -o pipefail
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
until_true() {
    local tries
    for ((tries = 0; tries < 600; tries++)); do "$@" >/dev/null 2>&1 && return; sleep 0.05; done
    echo "never true: $*"
    return 1
}
for unit in rvd rva rvbridge; do
    systemd-analyze security --offline=true --threshold=15 --no-pager "/lib/systemd/system/$unit.service" | tail -n 1
done
if [ "$(cat /proc/1/comm)" = systemd ]; then
    echo "systemd runs here"
    until_true systemctl is-active multi-user.target
    for unit in rvd rva; do until_true systemctl is-active "$unit"; done
    before=$(systemctl show --property MainPID --value rvd)
    systemctl reload rvd
    is_replaced() { [ "$(systemctl show --property MainPID --value rvd)" != "$before" ] && kvx status; }
    until_true is_replaced
    systemctl is-active rvd
    echo "a session starts the daemon, one that hangs is ended and started again, its recording is kept"
    mkdir -p /run/systemd/system/rvd.service.d
    cat >/run/systemd/system/rvd.service.d/test.conf <<'END'
[Service]
WatchdogSec=5
ExecStart=
ExecStart=/usr/bin/rvd -listen tcp:7500 -recorder 64k
END
    systemctl stop rva rvd
    systemctl daemon-reload
    systemctl start rvd.socket
    kvx send KEPT text=kept
    systemctl is-active rvd
    systemctl kill --signal=STOP rvd
    is_started_again() { [ "$(systemctl show --property NRestarts --value rvd)" -ge 1 ] && kvx status; }
    until_true is_started_again
    kvx dump /run/rvd/*.ring.1 | grep KEPT
    systemctl start rva
else
    echo "no systemd here, since there are no control groups: the daemon is started by hand"
    rvd -listen tcp:7500 &
fi
modeld --db /tmp/model.db --table vendors --key assignment --load /usr/share/ieee-data/oui.csv >/tmp/modeld.log 2>&1 &
until_true grep -q answering /tmp/modeld.log || { cat /tmp/modeld.log; exit 1; }
one="select organization_name from vendors where assignment = '002272'"
company="American Micro-Fuel Device Corp."
[ "$(kvx query Model "$one" --csv | tail -n 1)" = "$company" ]
[ "$(python3 -c 'import sys, kvxmom
with kvxmom.Client() as bus:
    print(*(row["organization_name"] for row in bus.query("Model", sys.argv[1])))' "$one")" = "$company" ]
kvx query Model 'select * from vendors' --quiet
if [ "$(cat /proc/1/comm)" = systemd ]; then
    echo "what is removed serves no more"
    dpkg --remove rvd rva
    for unit in rvd.socket rvd.service rva.service; do
        [ "$(systemctl show --property ActiveState --value $unit)" = inactive ]
    done
fi
