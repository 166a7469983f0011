#!/usr/bin/env bash
# Builds krohttpd and serves the bundled site with it.
set -euo pipefail
export LC_ALL=C.UTF-8
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=tools/packages.sh
. "$root/tools/packages.sh"

usage() {
  cat <<'USAGE'
usage: ./run.sh [--port N] [--build-only] [--no-install]
Installs what is missing, builds, and serves the bundled site on http://127.0.0.1:8080/ until Ctrl-C.

  --port N       serve on port N instead of 8080
  --build-only   stop after the build; the programs are in build/release/bin
  --no-install   install nothing
  --help         this text
USAGE
}

fail() {
  echo "run.sh: $1" >&2
  exit "${2:-1}"
}

# Whether somebody accepts connections on the port already.
port_taken() {
  (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

port=8080
build_only=
install=yes
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help) usage; exit 0 ;;
    --port) [ $# -ge 2 ] || fail "--port needs a number" 2; port=$2; shift ;;
    --port=*) port=${1#*=} ;;
    --build-only) build_only=yes ;;
    --no-install) install= ;;
    *) fail "unknown argument '$1' (try --help)" 2 ;;
  esac
  shift
done
if ! [[ $port =~ ^[1-9][0-9]{0,4}$ ]] || [ "$port" -gt 65535 ]; then
  fail "'$port' is not a port (1 to 65535)" 2
fi
if [ -z "$build_only" ] && port_taken "$port"; then
  fail "port $port is in use; choose another with --port"
fi

[ -z "$install" ] || packages_install build || exit 1
cd "$root"
cmake --preset release --log-level=WARNING >/dev/null || fail "cmake could not configure the build"
cmake --build --preset release --parallel "$(nproc)" || fail "the build failed"
[ -z "$build_only" ] || exit 0

echo "http://127.0.0.1:$port/  (Ctrl-C stops it)"
exec build/release/bin/krohttpd --listen "127.0.0.1:$port" --demo --root site
