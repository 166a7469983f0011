#!/usr/bin/env bash
# Runs each example as its reader would, on a port of the system's choice.
#
# usage: run.sh EXAMPLE-FOLDER NAME
set -euo pipefail
export LC_ALL=C.UTF-8
folder=$1
name=$2
scratch=$(mktemp -d)
server=
stop() {
  [ -z "$server" ] || kill "$server" 2>/dev/null || true
  rm -rf "$scratch"
}
trap stop EXIT

fail() {
  echo "$name: $1" >&2
  cat "$scratch/out" >&2 || true
  exit 1
}

# start ARGUMENT...: runs the example and waits for the URL that it prints.
start() {
  "$folder/$name" "$@" >"$scratch/out" 2>&1 &
  server=$!
  for _ in $(seq 200); do
    url=$(grep -oE 'http://[0-9.]+:[0-9]+' "$scratch/out" || true)
    [ -z "$url" ] || return 0
    sleep 0.05
  done
  fail "prints no URL"
}

get() { curl --silent --show-error --max-time 20 "$@"; }

expect() {
  [ "$1" = "$2" ] || fail "got '$1' instead of '$2'"
}

case $name in
  hello)
    start 0
    expect "$(get "$url/" "$url/again")" "$(printf 'Hello, world!\nHello, world!')"
    expect "$(get --head --output /dev/null --write-out '%{http_code} %{size_download}' "$url/")" "200 0"
    ;;
  later)
    start 0
    page='<html><head><title>OK</title></head><body><h1>200 - OK</h1><p>Sorry to have kept you waiting.</p></body></html>'
    expect "$(get "$url/?ms=50" "$url/?ms=1")" "$(printf '%s\n%s' "$page" "$page")"
    # A client that leaves before its reply must not take the others' along.
    get --max-time 0.2 "$url/?ms=1000" >/dev/null 2>&1 && fail "did not wait"
    expect "$(get "$url/?ms=1200")" "$page"
    ;;
  files)
    printf 'text of a file\n' >"$scratch/file.txt"
    expect "$("$folder/$name" 2>&1 || echo "exit $?")" "$(printf 'usage: files DIR [PORT]\nexit 2')"
    start "$scratch" 0
    expect "$(get "$url/file.txt")" "text of a file"
    expect "$(get --output /dev/null --write-out '%{http_code}' "$url/none")" "404"
    kill -TERM "$server"
    wait "$server" || fail "ended with $?"
    server=
    ;;
  *) fail "is not known here" ;;
esac
[ -z "$server" ] || kill -0 "$server" || fail "has ended"
