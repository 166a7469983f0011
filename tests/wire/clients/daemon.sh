# shellcheck shell=bash
# What the tests with real clients share. Sourced with: KROHTTPD, the path of the program; SITE, the bundled site;
# LOGS, a folder that outlives the test.
set -euo pipefail
export LC_ALL=C.UTF-8
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY || true

: "${KROHTTPD:?}" "${SITE:?}" "${LOGS:?}"
folder=$(mktemp -d /tmp/krohttp-clients-XXXXXX)
mkdir -p "$LOGS"
daemon=

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

need() {
  command -v "$1" >/dev/null || fail "$1 is not installed (./test.sh installs what the tests need)"
}

# expect WHAT ACTUAL EXPECTED
expect() {
  [ "$2" = "$3" ] || fail "$1: got '$2', expected '$3'"
}

# same FILE FILE WHAT
same() {
  cmp "$1" "$2" || fail "$3: the bytes differ"
}

# start OPTION...: runs krohttpd on a free port and sets url and port.
start() {
  : >"$folder/out"
  "$KROHTTPD" --listen 127.0.0.1:0 "$@" >"$folder/out" 2>"$folder/err" &
  daemon=$!
  local try
  for ((try = 0; try < 200; try++)); do
    port=$(sed -n 's|^krohttpd: listening on http://127\.0\.0\.1:\([0-9]*\)/$|\1|p' "$folder/out")
    [ -z "$port" ] || break
    kill -0 "$daemon" 2>/dev/null || fail "krohttpd did not start: $(cat "$folder/err")"
    sleep 0.05
  done
  [ -n "$port" ] || fail "krohttpd does not say where it listens"
  # shellcheck disable=SC2034 # for the tests
  url=http://127.0.0.1:$port
}

# Ends the daemon; it must end well. What it complained of in between are its clients' doings.
stop() {
  kill -TERM "$daemon"
  local status=0
  wait "$daemon" || status=$?
  daemon=
  expect "exit status of krohttpd" "$status" 0
  ! grep -E 'runtime error|Sanitizer' "$folder/err" || fail "see the lines above"
}

# Ends the daemon, which must have had nothing to complain of.
stop_without_complaint() {
  stop
  expect "standard error of krohttpd" "$(cat "$folder/err")" ""
}

finish() {
  local status=$?
  if [ -n "$daemon" ]; then
    kill -KILL "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
    [ "$status" -eq 0 ] || sed 's/^/krohttpd: /' "$folder/err" >&2
  fi
  rm -rf "$folder"
}
trap finish EXIT
