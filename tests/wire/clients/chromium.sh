#!/usr/bin/env bash
# krohttpd and a browser: the bundled site is shown, its scripts run, nothing is complained of; from krohttpd itself and
# from one behind a proxy.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
need chromium

start --demo --root "$SITE" --access-log "$folder/log"

# browse NAME OPTION...: loads the site with a profile of its own; what the page says goes to $LOGS/NAME.log.
browse() {
  local name=$1
  shift
  timeout 60 chromium --headless=new --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run \
    --disable-background-networking --disable-component-update --disable-default-apps --disable-extensions \
    --disable-sync --metrics-recording-only --hide-scrollbars --window-size=1200,1600 \
    --user-data-dir="$folder/profile" --enable-logging=stderr --log-level=0 --virtual-time-budget=5000 \
    "$@" "$url/" >"$LOGS/$name.out" 2>"$LOGS/$name.log" || fail "chromium: $(tail -n 5 "$LOGS/$name.log")"
}
# What the page itself has to say stands in lines of this kind.
no_complaints() {
  ! grep -E 'CONSOLE|Uncaught|net::ERR' "$LOGS/$1.log" || fail "the page complains; see $LOGS/$1.log"
}

# shown NAME: the site is at $url, with all that its script has to fill in.
version=$("$KROHTTPD" --version | cut -d' ' -f2)
shown() {
  local counter
  browse "$1" --dump-dom
  no_complaints "$1"
  grep -q "<span id=\"version\">$version</span>" "$LOGS/$1.out" ||
    fail "the page does not show the version: its script did not get /status; see $LOGS/$1.out"
  for counter in replies connections uptime memory; do
    ! grep -q "data-counter=\"$counter\">-<" "$LOGS/$1.out" || fail "the counter $counter is not filled in"
  done
}
# all_fetched LOG: all that the page asks for was there.
all_fetched() {
  local file
  for file in / /style.css /script.js /favicon.png /status; do
    grep -q "\"GET $file HTTP/1.1\" 200 " "$1" || fail "$file was not fetched: $(cat "$1")"
  done
  ! grep -vE '" 200 ' "$1" || fail "something was not there"
}

shown dom
browse screenshot --screenshot="$LOGS/site.png"
no_complaints screenshot
[ "$(stat -c %s "$LOGS/site.png")" -gt 10000 ] || fail "the screenshot is empty; see $LOGS/site.png"
all_fetched "$folder/log"

# What an earlier profile has in its cache would not be fetched.
rm -rf "$folder/profile"
: >"$folder/log"
start_as proxy --proxy "/=tcp:127.0.0.1:$port" --access-log "$folder/proxy-log"
shown proxied
all_fetched "$folder/log"
all_fetched "$folder/proxy-log"
stop_without_complaint proxy
stop_without_complaint
