#!/usr/bin/env bash
# Builds what it runs, starts a private bus daemon, runs the example service, calls it with
# the orvix tool and with the example client, prints the replies, and stops what it started.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset default >/dev/null
programs=(orvix-tool greeter_service greeter_client)
# hostbus's daemon, when the build uses hostbus rather than the system's libubus.
if ninja -C build/default -t targets all | grep -q '^orvix-ubusd:'; then
    programs+=(orvix-ubusd)
fi
cmake --build --preset default --target "${programs[@]}"

build=build/default
daemon="$build/hostbus/daemon/orvix-ubusd"
[ -x "$daemon" ] || daemon="$(command -v ubusd)" || { echo "demo: no bus daemon found" >&2; exit 1; }

work="$(mktemp -d /tmp/orvix-demo-XXXXXX)"
socket="$work/ubus.sock"
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

wait_for() { # wait_for SECONDS COMMAND...: polls until COMMAND succeeds
    local deadline=$((SECONDS + $1)); shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.1
    done
}

echo "== bus daemon on $socket"
"$daemon" -s "$socket" &
pids+=($!)
wait_for 10 test -S "$socket"

echo "== example service"
"$build/examples/greeter_service" -s "$socket" >"$work/service.log" 2>&1 &
pids+=($!)
wait_for 10 grep -qs "published" "$work/service.log" || { cat "$work/service.log"; exit 1; }
cat "$work/service.log"

echo
echo "== orvix -s $socket call orvix.greeter greet '{\"name\": \"orvix tool\"}'"
"$build/tools/orvix" -s "$socket" call orvix.greeter greet '{"name": "orvix tool"}'

echo
echo "== orvix -s $socket -S call orvix.greeter count '{\"to\": 3}'"
"$build/tools/orvix" -s "$socket" -S call orvix.greeter count '{"to": 3}'

echo
echo "== greeter_client -s $socket 'example client'"
"$build/examples/greeter_client" -s "$socket" "example client"

echo
echo "== orvix -s $socket call orvix.greeter nosuchmethod (fails on purpose)"
"$build/tools/orvix" -s "$socket" call orvix.greeter nosuchmethod && exit 1 || echo "exit status $?"

cat <<EOF

== done. To try things by hand:
  $daemon -s /tmp/my-bus.sock &
  $build/tools/orvix -s /tmp/my-bus.sock list
  $build/tools/orvix --help
EOF
