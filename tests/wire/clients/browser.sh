# shellcheck shell=bash
# A browser that does as it is told. Sourced after daemon.sh; one for each test.
# shellcheck disable=SC2154 # folder and LOGS are set there
# It takes commands from one pipe, as JSON with a NUL at its end, and answers into another.
mkfifo "$folder/to" "$folder/from"
open_browser() {
  # shellcheck disable=SC2016 # for the shell that is started
  launch browser bash -c 'to=$0 from=$1; shift; exec chromium "$@" 3<"$to" 4>"$from"' "$folder/to" "$folder/from" \
    --headless=new --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run --disable-background-networking \
    --disable-component-update --disable-default-apps --disable-extensions --disable-sync --metrics-recording-only \
    --hide-scrollbars --window-size=800,700 --user-data-dir="$folder/profile" --remote-debugging-pipe about:blank
  exec {to}>"$folder/to" {from}<"$folder/from"
  drive Target.createTarget '{"url":"about:blank"}'
  drive Target.attachToTarget "{\"targetId\":\"$(field targetId)\",\"flatten\":true}"
  tab=$(field sessionId)
  drive Page.enable
  drive Log.enable
  drive Runtime.enable
}

# Lets the browser end as it wants to: what it is killed in the middle of goes on writing its profile.
close_browser() {
  tab=
  drive Browser.close
  wait "${running[browser]}" || fail "the browser: $(tail -n 5 "$folder/browser.err")"
  unset 'running[browser]'
}

# drive METHOD [PARAMETERS]: has the browser do something; what it answers is left in $answer, what it reports
# meanwhile goes to $LOGS/browser.log.
tab=
sent=0
answer=
drive() {
  sent=$((sent + 1))
  printf '{"id":%d,%s"method":"%s","params":%s}\0' "$sent" "${tab:+\"sessionId\":\"$tab\",}" "$1" "${2:-{\}}" >&"$to"
  while IFS= read -r -d '' -t 30 answer <&"$from"; do
    case $answer in
      "{\"id\":$sent,\"error\""*) fail "the browser refuses $1: $answer" ;;
      "{\"id\":$sent,"*) return ;;
    esac
    printf '%s\n' "$answer" >>"$LOGS/browser.log"
  done
  fail "the browser does not answer to $1; see $LOGS/browser.log"
}
# field NAME: a text in the answer.
field() { sed -n "s/.*\"$1\":\"\([^\"]*\)\".*/\1/p" <<<"$answer"; }
# tell SCRIPT: what it evaluates to, a text without quotes.
tell() {
  drive Runtime.evaluate "{\"expression\":\"$1\",\"returnByValue\":true}"
  field value
}
# await WHAT SCRIPT TEXT: until the script evaluates to the text.
await() {
  local try found
  for ((try = 0; try < 100; try++)); do
    found=$(tell "$2")
    [ "$found" != "$3" ] || return 0
    sleep 0.1
  done
  picture failed
  fail "$1: got '$found', expected '$3'; see $LOGS/failed.png"
}
visit() {
  drive Page.navigate "{\"url\":\"$1\"}"
  ! grep -q errorText <<<"$answer" || fail "$1: $answer"
}
type_text() { drive Input.insertText "{\"text\":\"$1\"}"; }
# press KEY CODE [TEXT]
press() {
  local key="\"key\":\"$1\",\"code\":\"$1\",\"windowsVirtualKeyCode\":$2"
  drive Input.dispatchKeyEvent "{\"type\":\"keyDown\",$key${3:+,\"text\":\"$3\"}}"
  drive Input.dispatchKeyEvent "{\"type\":\"keyUp\",$key}"
}
tab_key() { press Tab 9; }
enter_key() { press Enter 13 '\r'; }
picture() {
  drive Page.captureScreenshot '{"format":"png"}'
  field data | base64 -d >"$LOGS/$1.png"
  [ "$(stat -c %s "$LOGS/$1.png")" -gt 5000 ] || fail "the picture is empty; see $LOGS/$1.png"
}
: >"$LOGS/browser.log"
