#!/usr/bin/env bash
# Builds everything and runs every test: once optimised, once under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
export LC_ALL=C.UTF-8
root=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=tools/packages.sh
. "$root/tools/packages.sh"

usage() {
  cat <<'USAGE'
usage: ./test.sh [--quick] [--no-install] [-- CTEST-ARGUMENT...]
Installs what is missing, builds the presets dev and asan, and runs the tests in both.
The last line is "N passed, M failed"; the exit status is 0 when nothing failed.

  --quick        the preset dev only
  --no-install   install nothing
  --help         this text
  -- ...         the rest goes to ctest, e.g.: ./test.sh --quick -- -R unit/
USAGE
}

fail() {
  echo "test.sh: $1" >&2
  exit "${2:-1}"
}

presets=(dev asan)
install=yes
while [ $# -gt 0 ]; do
  case $1 in
    -h | --help) usage; exit 0 ;;
    --quick) presets=(dev) ;;
    --no-install) install= ;;
    --) shift; break ;;
    *) fail "unknown argument '$1' (try --help)" 2 ;;
  esac
  shift
done

[ -z "$install" ] || packages_install build test || exit 1
cd "$root"
jobs=$(nproc)
passed=0
failed=0
summary=()

# A build that fails, or a run that dies before ctest can count, is one failure.
count_failure() {
  failed=$((failed + 1))
  summary+=("$1: $2")
}

# count_results PRESET LOG: adds up what ctest reported.
count_results() {
  local preset=$1 log=$2 line bad total skipped
  line=$(grep -E '^[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1) || return 1
  read -r bad total < <(sed -E 's/^[0-9]+% tests passed, ([0-9]+) tests failed out of ([0-9]+).*/\1 \2/' <<<"$line")
  skipped=$(sed -n '/^The following tests did not run:/,/^The following tests FAILED:/p' "$log" |
    grep -cF '(Skipped)' || true)
  passed=$((passed + total - bad - skipped))
  failed=$((failed + bad))
  summary+=("$preset: $((total - bad - skipped)) passed, $bad failed, $skipped skipped")
}

run_preset() {
  local preset=$1 log=$root/build/$1/ctest.log status=0
  shift
  echo "== $preset: build"
  if ! cmake --preset "$preset" --log-level=WARNING >/dev/null; then
    count_failure "$preset" "cmake could not configure the build"
    return
  fi
  if ! cmake --build --preset "$preset" --parallel "$jobs"; then
    count_failure "$preset" "the build failed"
    return
  fi
  echo "== $preset: tests"
  rm -f "$log"
  ctest --preset "$preset" --parallel "$jobs" --no-tests=error --output-log "$log" "$@" || status=$?
  local failed_before=$failed
  if ! count_results "$preset" "$log"; then
    count_failure "$preset" "no test results"
  elif [ "$status" -ne 0 ] && [ "$failed" -eq "$failed_before" ]; then
    count_failure "$preset" "ctest ended with status $status"
  fi
}

for preset in "${presets[@]}"; do
  run_preset "$preset" "$@"
done

echo
printf '%s\n' "${summary[@]}"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
