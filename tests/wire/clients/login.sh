#!/usr/bin/env bash
# krohttpd's logins with curl, wget and a browser: Basic and Digest on connections that are kept, sessions in a cookie
# jar, and the login page as somebody at a keyboard uses it.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
need curl
need wget
need chromium
# shellcheck source=tests/wire/clients/browser.sh
. "$(dirname "${BASH_SOURCE[0]}")/browser.sh"
fetch=(curl --silent --show-error --max-time 60)

password='pä:ss wörd+%&"'
printf '%s\n' "$password" | "$KROHTTPD" --add-user "$folder/users" alice 'Test Device'
printf 'b\n' | "$KROHTTPD" --add-user "$folder/users" bob 'Test Device'
mkdir -p "$folder/root/private/deep"
page='<!DOCTYPE html><html lang="en"><title>Private</title><link rel="icon" href="data:,"><h1>For users only</h1></html>'
echo "$page" >"$folder/root/private/index.html"
head -c 300000 /dev/urandom >"$folder/root/private/deep/data.bin"
head -c 1048576 /dev/urandom >"$folder/mebibyte"
protect=(--auth-file "$folder/users" --demo --root "$folder/root")
start "${protect[@]}" --protect /hello=basic --protect /echo=digest --protect /status=digest \
  --protect /private=session --protect /private/deep=digest --access-log "$folder/log"

status() { "${fetch[@]}" -o /dev/null -w '%{http_code}' "$@"; }

# --- Basic ------------------------------------------------------------------------------------------------------------
expect "/hello without a user" "$(status "$url/hello")" 401
expect "/hello for a wrong password" "$(status --basic -u alice:x "$url/hello")" 401
expect "/hello for alice" "$("${fetch[@]}" --fail --basic -u "alice:$password" "$url/hello?a=b&c=%20d")" "Hello, world!"
expect "/hello for alice, by the method that curl chooses" \
  "$("${fetch[@]}" --fail --anyauth -u "alice:$password" "$url/hello")" "Hello, world!"

# --- Digest -----------------------------------------------------------------------------------------------------------
expect "/status for a wrong password" "$(status --digest -u bob:x "$url/status")" 401
expect "/status with a password for all to see" "$(status --basic -u bob:b "$url/status")" 401
expect "/status for bob" "$(status --digest -u bob:b "$url/status?a=b&c=%20d&e=%2f")" 200
"${fetch[@]}" --fail --digest -u "alice:$password" -o "$folder/back" "$url/private/deep/data.bin"
same "$folder/root/private/deep/data.bin" "$folder/back" "a file behind Digest"
"${fetch[@]}" --fail --digest -u "alice:$password" --data-binary "@$folder/mebibyte" -o "$folder/back" "$url/echo?x=1&y"
same "$folder/mebibyte" "$folder/back" "a body behind Digest"
# The question, its answer, and all that follows: one connection.
expect "connections for three bodies and a page" "$("${fetch[@]}" --fail --digest -u bob:b -w '%{num_connects} ' \
  -o "$folder/one" -d first "$url/echo?a=1" --next "${fetch[@]:1}" --fail --digest -u bob:b -w '%{num_connects} ' \
  -o "$folder/two" -d second "$url/echo?b=2" --next "${fetch[@]:1}" --fail --digest -u bob:b -w '%{num_connects} ' \
  -o /dev/null "$url/status?c=%203")" "1 0 0 "
expect "the bodies" "$(cat "$folder/one" "$folder/two")" firstsecond

get() { wget --quiet --timeout=20 --tries=1 "$@"; }
get --user=alice --password="$password" -O "$folder/back" "$url/private/deep/data.bin" || fail "wget and Digest"
same "$folder/root/private/deep/data.bin" "$folder/back" "a file for wget behind Digest"
expect "/hello for wget" "$(get --user=bob --password=b -O - "$url/hello?q=1&r=%20")" "Hello, world!"
code=0
get --user=bob --password=x -O /dev/null "$url/status" || code=$?
expect "wget with a wrong password" "$code" 6

# --- sessions in a cookie jar -----------------------------------------------------------------------------------------
jar=(-b "$folder/jar" -c "$folder/jar")
: >"$folder/jar"
expect "a page without a session" "$(status "${jar[@]}" "$url/private/")" 401
expect "where a browser is sent" \
  "$("${fetch[@]}" -o /dev/null -w '%{http_code} %{redirect_url}' -H 'Accept: text/html' "$url/private/?a=b&c=d")" \
  "303 $url/login?next=/private/%3Fa%3Db%26c%3Dd"
expect "the page after a login" "$("${fetch[@]}" --fail --location "${jar[@]}" --data-urlencode username=alice \
  --data-urlencode "password=$password" --data-urlencode next=/private/ "$url/login")" "$page"
expect "the page with a session" "$("${fetch[@]}" --fail "${jar[@]}" "$url/private/?a=b")" "$page"
expect "the cookies in the jar" "$(grep -c 'kro/sessid' "$folder/jar")" 1
grep -q '^#HttpOnly_127.0.0.1.*kro/sessid' "$folder/jar" || fail "the cookie can be read by scripts"
expect "a login while logged in" "$(status "${jar[@]}" -d 'username=bob&password=b' "$url/login")" 303
expect "the user now" "$("${fetch[@]}" "${jar[@]}" "$url/login" | grep -c 'You are <strong>bob</strong>')" 1
expect "logging out" "$("${fetch[@]}" -o /dev/null -w '%{http_code} %{redirect_url}' "${jar[@]}" -X POST "$url/logout")" \
  "303 $url/login"
expect "the page after logging out" "$(status "${jar[@]}" "$url/private/")" 401
! grep -q 'kro/sessid' "$folder/jar" || fail "the cookie was not taken back"
expect "users in the log" "$(cut -d' ' -f3 "$folder/log" | sort -u | tr '\n' ' ')" "- alice bob "
stop

# --- a browser --------------------------------------------------------------------------------------------------------
where="document.readyState == 'complete' ? location.pathname + location.search + ' ' + document.title : ''"
focus="document.activeElement.id || document.activeElement.textContent"
log_in() {
  await "the focus" "$focus" username
  type_text "$1"
  tab_key
  expect "the focus behind the user name" "$(tell "$focus")" password
  type_text "$2"
  enter_key
}

start "${protect[@]}" --protect /private=session
open_browser
quoted=${password//\"/\\\"}
visit "$url/private/?a=b&c=d"
await "the login page" "$where" '/login?next=/private/%3Fa%3Db%26c%3Dd Log in - Test Device'
picture page-light
drive Emulation.setEmulatedMedia '{"features":[{"name":"prefers-color-scheme","value":"dark"}]}'
picture page-dark
! cmp --silent "$LOGS/page-light.png" "$LOGS/page-dark.png" || fail "the page does not change with the colour scheme"

log_in alice wrong
await "the page after a wrong password" "$where" '/login Log in failed - Test Device'
expect "the error" "$(tell "document.querySelector('[role=alert]').textContent")" 'The user name or the password is wrong.'
expect "the user name that was entered" "$(tell "document.getElementById('username').value")" alice
expect "the password that was entered" "$(tell "'[' + document.getElementById('password').value + ']'")" '[]'
expect "what describes the password" "$(tell "document.activeElement.getAttribute('aria-describedby')")" error
await "the focus after a wrong password" "$focus" password
picture page-error
drive Emulation.setEmulatedMedia '{"features":[]}'

type_text "$quoted"
enter_key
await "the page that was wanted" "$where" '/private/?a=b&c=d Private'
expect "its content" "$(tell "document.querySelector('h1').textContent")" 'For users only'
expect "what scripts see of the cookie" "$(tell "'[' + document.cookie + ']'")" '[]'
expect "the address of the page" "$(tell 'location.href')" "$url/private/?a=b&c=d"
drive Page.reload
await "the page, loaded again" "$where" '/private/?a=b&c=d Private'

visit "$url/login"
await "the page of those who are logged in" "$where" '/login Logged in - Test Device'
picture page-logged-in
tab_key
expect "the first link" "$(tell "$focus")" 'Go on to the page'
tab_key
expect "the button behind it" "$(tell "$focus")" 'Log out'
enter_key
await "the login page after logging out" "$where" '/login Log in - Test Device'
visit "$url/private/"
await "the page after logging out" "$where" '/login?next=/private/ Log in - Test Device'
stop

start "${protect[@]}" --protect /private=session --session-timeout 1
visit "$url/private/"
await "the login page" "$where" '/login?next=/private/ Log in - Test Device'
log_in bob b
await "the page with a short session" "$where" '/private/ Private'
sleep 3
drive Page.reload
await "the page after the session" "$where" '/login?next=/private/ Log in - Test Device'

# Nothing to complain of but the refusals that belong to it.
! grep -E '"method":"(Runtime.exceptionThrown|Runtime.consoleAPICalled)"' "$LOGS/browser.log" || fail "see the lines above"
! grep '"method":"Log.entryAdded"' "$LOGS/browser.log" | grep -v 'status of 401' || fail "see the lines above"
close_browser
stop_without_complaint krohttpd
