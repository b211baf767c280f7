#!/bin/bash
# The package of the example extension, installed on a running system: the service serves at once, removed it is gone.
#   package_test.sh FOLDER_OF_THE_PACKAGES TEST_FOLDER
set -u
packages=$1
. "$2/box.sh"
. "$2/checks.sh"
unit=tern-thermostat

box_up
# Where this machine lets no package start a service: it is about the one inside.
rm -f "$BOX_ROOT/usr/sbin/policy-rc.d"
mkdir "$BOX_ROOT/root/packages"
cp "$packages"/{libtern-{dbus-service,dbus-typed,diagnostics}0,tern-thermostat}_*.deb "$BOX_ROOT/root/packages" ||
    { echo "FAILED: there are no packages"; exit 1; }
box systemctl start dbus.service
if box sh -c 'DEBIAN_FRONTEND=noninteractive dpkg -i /root/packages/*.deb' >"$BOX_WORK/output" 2>&1; then ok "installed"; else
    fail "installation"
    cat "$BOX_WORK/output"
fi
# The policy names a user whom the installation makes: a bus that does not know that refuses the first start.
is "nothing failed" 0 "$(box systemctl show $unit -p NRestarts --value)"
is "runs" active "$(box systemctl is-active $unit)"
box journalctl --no-pager -o cat -u $unit | grep -E 'FAILED|Failed with|refuses' && fail "the first start"
box thermostatctl show | grep -q '^Target  *20.00$' && ok "answers" || fail "no answer"

box sh -c 'DEBIAN_FRONTEND=noninteractive dpkg -r tern-thermostat' >"$BOX_WORK/output" 2>&1 && ok "removed" || fail "removal"
is "stopped" inactive "$(box systemctl is-active $unit)"
rm -f "$BOX_WORK/output"
echo "$failures failures"
[ "$failures" -eq 0 ]
