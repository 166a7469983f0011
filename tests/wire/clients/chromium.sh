#!/usr/bin/env bash
# krohttpd and a browser: the bundled site is shown, its scripts run, nothing is complained of.
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

browse dom --dump-dom
no_complaints dom
version=$("$KROHTTPD" --version | cut -d' ' -f2)
grep -q "<span id=\"version\">$version</span>" "$LOGS/dom.out" ||
  fail "the page does not show the version: its script did not get /status; see $LOGS/dom.out"
for counter in replies connections uptime memory; do
  ! grep -q "data-counter=\"$counter\">-<" "$LOGS/dom.out" || fail "the counter $counter is not filled in"
done

browse screenshot --screenshot="$LOGS/site.png"
no_complaints screenshot
[ "$(stat -c %s "$LOGS/site.png")" -gt 10000 ] || fail "the screenshot is empty; see $LOGS/site.png"

# All that the page asked for was there.
for file in / /style.css /script.js /favicon.png /status; do
  grep -q "\"GET $file HTTP/1.1\" 200 " "$folder/log" || fail "$file was not fetched: $(cat "$folder/log")"
done
! grep -vE '" 200 ' "$folder/log" || fail "something was not there"
stop_without_complaint
