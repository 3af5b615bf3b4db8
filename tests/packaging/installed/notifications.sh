#!/bin/sh
# notifications.sh: the installed tarnd tells a service manager that it is ready, alive, and about to end. The service
# manager is a socket of the test's own.
set -eu
cd "$(dirname "$0")/../../.."
export TARND=/usr/bin/tarnd TARN=/usr/bin/tarn
# These tests start no service and no publisher.
export STATUS_SERVICE=/bin/false CHANGES_PUBLISHER=/bin/false CHANGES_SUBSCRIBER=/bin/false
exec python3 -B tests/apps/tarnd_test.py AServiceManager
