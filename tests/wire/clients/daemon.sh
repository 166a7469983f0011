# shellcheck shell=bash
# What the tests with the programs of others share. Sourced with: KROHTTPD and KROGET, the paths of the programs; SITE,
# the bundled site; LOGS, a folder that outlives the test.
set -euo pipefail
export LC_ALL=C.UTF-8
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY || true

: "${KROHTTPD:?}" "${KROGET:?}" "${SITE:?}" "${LOGS:?}"
folder=$(mktemp -d /tmp/krohttp-clients-XXXXXX)
mkdir -p "$LOGS"
# What runs, by name. The output of NAME goes to $folder/NAME.out and $folder/NAME.err.
declare -A running

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

need() {
  PATH=$PATH:/usr/sbin:/sbin command -v "$1" >/dev/null ||
    fail "$1 is not installed (./test.sh installs what the tests need)"
}

# expect WHAT ACTUAL EXPECTED
expect() {
  [ "$2" = "$3" ] || fail "$1: got '$2', expected '$3'"
}

# same FILE FILE WHAT
same() {
  cmp "$1" "$2" || fail "$3: the bytes differ"
}

# launch NAME COMMAND...: runs it in the background.
launch() {
  local name=$1
  shift
  : >"$folder/$name.out"
  "$@" >"$folder/$name.out" 2>"$folder/$name.err" &
  running[$name]=$!
}

is_running() {
  kill -0 "${running[$1]}" 2>/dev/null
}

# start_as NAME OPTION...: runs krohttpd on a free port and sets url and port.
start_as() {
  local name=$1 try
  launch "$name" "$KROHTTPD" --listen 127.0.0.1:0 "${@:2}"
  for ((try = 0; try < 200; try++)); do
    port=$(sed -n 's|^krohttpd: listening on http://127\.0\.0\.1:\([0-9]*\)/$|\1|p' "$folder/$name.out")
    [ -z "$port" ] || break
    is_running "$name" || fail "$name did not start: $(cat "$folder/$name.err")"
    sleep 0.05
  done
  [ -n "$port" ] || fail "$name does not say where it listens"
  # shellcheck disable=SC2034 # for the tests
  url=http://127.0.0.1:$port
}

start() {
  start_as krohttpd "$@"
}

# stop [NAME]: ends the daemon; it must end well. What it complained of in between are its clients' doings.
stop() {
  local name=${1:-krohttpd} status=0
  kill -TERM "${running[$name]}"
  wait "${running[$name]}" || status=$?
  unset "running[$name]"
  expect "exit status of $name" "$status" 0
  ! grep -E 'runtime error|Sanitizer' "$folder/$name.err" || fail "see the lines above"
}

# stop_without_complaint [NAME]: ends the daemon, which must have had nothing to complain of.
stop_without_complaint() {
  stop "${1:-krohttpd}"
  expect "standard error of ${1:-krohttpd}" "$(cat "$folder/${1:-krohttpd}.err")" ""
}

finish() {
  local status=$? name
  for name in "${!running[@]}"; do
    kill -KILL "${running[$name]}" 2>/dev/null || true
    wait "${running[$name]}" 2>/dev/null || true
    [ "$status" -eq 0 ] || sed "s/^/$name: /" "$folder/$name.err" >&2
  done
  # A browser that was killed has children that end a little later.
  rm -rf "$folder" 2>/dev/null || { sleep 1 && rm -rf "$folder"; }
}
trap finish EXIT
