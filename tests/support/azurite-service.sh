#!/usr/bin/env bash
# One Azurite for a whole ctest run. The ctest fixture host_tool_e2e
# (tests/tool/CMakeLists.txt) starts it before the first end-to-end test of
# cloudplugin-host and stops it after the last; the tests find its port in
# STATE_DIR/port, named by QV_E2E_AZURITE_PORT_FILE, and each test uses a
# container of its own. A test program run by hand, without that variable,
# starts an Azurite of its own instead (tests/tool/e2e/ToolRunner.cpp).
#
#   azurite-service.sh start STATE_DIR [AZURITE_BIN]
#   azurite-service.sh stop STATE_DIR
#
# AZURITE_BIN from the environment wins over the one given (the one the
# build was configured with), as it does for the test programs.
set -uo pipefail
action=${1:?start or stop}
state=${2:?the state folder}
. "$(dirname "$0")/../../scripts/azurite.sh"

# Stops the Azurite the state folder names, if it still runs and is one.
stop_service() {
  local pid
  pid=$(cat "$state/pid" 2>/dev/null) || return 0
  rm -f "$state/pid" "$state/port"
  [ -n "$pid" ] && grep -qa azurite "/proc/$pid/cmdline" 2>/dev/null || return 0
  kill "$pid" 2>/dev/null
  for _ in $(seq 1 100); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null
  return 0
}

case "$action" in
  start)
    mkdir -p "$state"
    # A run stopped before its clean-up (Ctrl-C) left its Azurite behind.
    stop_service
    [ -n "${AZURITE_BIN:-}" ] || AZURITE_BIN=${3:-}
    # Should the clean-up never run, the service still ends by itself.
    AZURITE_TIME_LIMIT=${AZURITE_TIME_LIMIT:-4h}
    azurite_start "$state/azurite" || exit 1
    echo "$AZURITE_PID" >"$state/pid"
    echo "$AZURITE_PORT" >"$state/port.new" && mv "$state/port.new" "$state/port"
    echo "Azurite for this test run on 127.0.0.1:${AZURITE_PORT} (pid ${AZURITE_PID})"
    ;;
  stop)
    stop_service
    ;;
  *)
    echo "usage: $0 start|stop STATE_DIR [AZURITE_BIN]" >&2
    exit 2
    ;;
esac
