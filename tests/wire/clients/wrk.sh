#!/usr/bin/env bash
# krohttpd and wrk: a thousand connections at once, not one error.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
need wrk
ulimit -n 4096 || fail "cannot have 4096 descriptors"

mkdir "$folder/root"
head -c 20000 /dev/urandom >"$folder/root/data.bin"
start --demo --root "$folder/root"

load() {
  wrk --threads 2 --connections 1000 --duration 2s --timeout 20s "$url$1" >"$folder/said" 2>&1 ||
    fail "wrk: $(cat "$folder/said")"
  cat "$folder/said"
  ! grep -E 'Socket errors|Non-2xx' "$folder/said" || fail "errors under load: $1"
  [ "$(sed -nE 's/^ *([0-9]+) requests in .*/\1/p' "$folder/said")" -ge 1000 ] || fail "hardly a request was answered: $1"
}
load /hello
load /data.bin
stop
