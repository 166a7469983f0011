#!/usr/bin/env bash
# krohttpd's uploads with curl and a browser: one byte to a gibibyte, several at once, in chunks, told to go on and not;
# the page as somebody uses it; and what an upload costs everybody else.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
need curl
need chromium
# shellcheck source=tests/wire/clients/browser.sh
. "$(dirname "${BASH_SOURCE[0]}")/browser.sh"
fetch=(curl --silent --show-error --max-time 100)
files=$folder/files
in=$folder/in
mkdir "$files" "$in"

free=$(df --output=avail -k "$folder" | tail -n 1)
[ "$free" -gt $((5 * 1024 * 1024)) ] || fail "5 GiB are needed below $folder, $((free / 1024)) MiB are free"

printf x >"$files/byte"
head -c 1048576 /dev/urandom >"$files/mebibyte"
# A gibibyte that takes no room, but in which nothing can change its place unnoticed.
truncate -s 1G "$files/gibibyte"
for block in 0 1 255 256 511 1022 1023; do
  dd if="$files/mebibyte" of="$files/gibibyte" bs=1M seek="$block" conv=notrunc status=none
done
for number in {1..10}; do head -c $((number * 77777)) /dev/urandom >"$files/ten $number.bin"; done

hash_of() { sha256sum <"$1" | cut -d' ' -f1; }
declare -A hash
for name in byte mebibyte gibibyte; do hash[$name]=$(hash_of "$files/$name"); done

# json NAME FILE: what is told of the file stored under this name.
json() { printf '{"name":"%s","bytes":%d,"sha256":"%s"}' "$1" "$(stat -c %s "$2")" "${hash[${2##*/}]:-$(hash_of "$2")}"; }

# arrives WHAT STORED FILE OPTION...: the file arrives under the name, and goes again.
arrives() {
  local what=$1 stored=$2 file=$3
  shift 3
  expect "$what" "$("${fetch[@]}" "$@" "$url/upload")" "{\"files\":[$(json "$stored" "$file")]}"
  same "$file" "$in/$stored" "$what"
  rm "$in/$stored"
}

start --upload "/upload=$in" --demo

# --- curl -------------------------------------------------------------------------------------------------------------
for name in byte mebibyte gibibyte; do
  file=$files/$name
  arrives "$name" "$name" "$file" -F "file=@$file"
  arrives "$name in chunks" "$name" "$file" -F "file=@$file" -H 'Transfer-Encoding: chunked'
done
for name in byte mebibyte; do
  file=$files/$name
  arrives "$name, told to go on" "$name" "$file" -F "file=@$file" -H 'Expect: 100-continue'
  arrives "$name, without waiting" "$name" "$file" -F "file=@$file" -H 'Expect:'
  arrives "$name in chunks, told to go on" "$name" "$file" -F "file=@$file" -H 'Transfer-Encoding: chunked' \
    -H 'Expect: 100-continue'
  arrives "$name over HTTP/1.0" "$name" "$file" --http1.0 -F "file=@$file"
  arrives "$name under another name" 'grüße; 1.bin' "$file" -F "file=@$file;filename=\"../grüße; 1.bin\""
done

options=()
expected=
for number in {1..10}; do
  options+=(-F "files=@$files/ten $number.bin" -F "number=$number")
  expected+=${expected:+,}$(json "ten $number.bin" "$files/ten $number.bin")
done
expect "ten files" "$("${fetch[@]}" "${options[@]}" "$url/upload")" "{\"files\":[$expected]}"
for number in {1..10}; do same "$files/ten $number.bin" "$in/ten $number.bin" "ten $number.bin"; done
rm "$in"/*

expect "a page instead" "$("${fetch[@]}" -H 'Accept: text/html' -F "f=@$files/byte" "$url/upload" |
  grep -c "<th scope=\"row\">byte</th><td>1</td><td><code>${hash[byte]}</code>")" 1
rm "$in/byte"
expect "no form" "$("${fetch[@]}" -w '%{http_code}' -o /dev/null --data-binary "@$files/mebibyte" "$url/upload")" 415
expect "an upload given up" "$("${fetch[@]}" --max-time 1 --limit-rate 100K -F "f=@$files/mebibyte" "$url/upload" \
  2>/dev/null || echo $?)" 28
expect "what is left of it" "$(find "$in" -mindepth 1)" ""

# --- others meanwhile -------------------------------------------------------------------------------------------------
# Twelve seconds of an upload at 1 MiB/s, and a hundred requests beside it. How long they take is told, not judged.
head -c 12582912 /dev/urandom >"$files/slow"
launch slow "${fetch[@]}" --limit-rate 1M -F "f=@$files/slow" "$url/upload"
seconds=()
for request in {1..100}; do
  seconds+=("$("${fetch[@]}" --fail -w '%{time_total}' -o "$folder/hello" "$url/hello")")
  expect "request $request beside an upload" "$(cat "$folder/hello")" "Hello, world!"
  sleep 0.02
done
is_running slow || fail "the upload was over before the requests: $(cat "$folder/slow.err")"
wait "${running[slow]}" || fail "the upload failed: $(cat "$folder/slow.err")"
unset "running[slow]"
expect "the upload" "$(cat "$folder/slow.out")" "{\"files\":[$(json slow "$files/slow")]}"
echo "100 requests beside an upload at 1 MiB/s: 99th percentile $(printf '%s\n' "${seconds[@]}" | sort -g |
  sed -n 99p) s, median $(printf '%s\n' "${seconds[@]}" | sort -g | sed -n 50p) s" | tee "$LOGS/latency.txt"
rm "$in/slow"
stop

# --- a browser --------------------------------------------------------------------------------------------------------
start --upload "/upload=$in" --max-upload 100M --access-log "$folder/pages"
head -c 4194304 /dev/urandom >"$files/four.bin"
cp "$files/byte" "$files/<b>&.txt"

# choose FILE...: as if picked in the dialog.
choose() {
  local file list=
  for file in "$@"; do list+=${list:+,}\"$file\"; done
  drive Runtime.evaluate '{"expression":"document.getElementById(\"files\")"}'
  drive DOM.setFileInputFiles "{\"files\":[$list],\"objectId\":\"$(field objectId)\"}"
}
text_of() { tell "document.getElementById('$1').textContent"; }
ready="document.readyState == 'complete' ? document.title : ''"
focus="document.activeElement.id"
state="document.getElementById('state').textContent"

open_browser
visit "$url/upload"
await "the page" "$ready" 'Send files - krohttpd'
picture form-light
drive Emulation.setEmulatedMedia '{"features":[{"name":"prefers-color-scheme","value":"dark"}]}'
picture form-dark
drive Emulation.setEmulatedMedia '{"features":[]}'
tab_key
expect "what the keyboard reaches first" "$(tell "$focus")" files
tab_key
expect "what it reaches next" "$(tell "$focus")" send

# At 1 MiB/s there is a while to look at the progress.
drive Network.enable
drive Network.emulateNetworkConditions '{"offline":false,"latency":0,"downloadThroughput":-1,"uploadThroughput":1048576}'
choose "$files/four.bin" "$files/<b>&.txt"
await "the chosen files" "'' + document.querySelectorAll('#chosen li').length" 2
enter_key
await "the button meanwhile" "$focus" abort
await "the progress" \
  "(document.getElementById('progress').value > 5 && document.getElementById('progress').value < 95) + ''" true
picture progress
await "the end" "$state" '2 files are stored.'
picture stored
for file in four.bin '<b>&.txt'; do
  name=$file
  row="Array.from(document.querySelectorAll('#rows tr')).map(row => Array.from(row.cells).map(cell => cell.textContent)"
  row+=".join(' ')).find(text => text.startsWith('$name'))"
  expect "the row of $name" "$(tell "$row")" \
    "$name $(stat -c %s "$files/$file" | sed ':a; s/\B[0-9]\{3\}\>/,&/; ta') $(hash_of "$files/$file")"
  same "$files/$file" "$in/$file" "$file from the browser"
done

choose "$files/four.bin"
await "the chosen file" "'' + document.querySelectorAll('#chosen li').length" 1
tell "document.getElementById('send').click()" >/dev/null
await "the progress of the second" "(document.getElementById('progress').value > 5) + ''" true
enter_key
await "the end of the second" "$state" 'Aborted: nothing was stored.'
receiving() { find "/proc/${running[krohttpd]}/fd" -lname "$in*" 2>/dev/null | wc -l; }
for ((try = 0; try < 100; try++)); do
  [ "$(receiving)" -gt 0 ] || break
  sleep 0.1
done
expect "files that are open for what was aborted" "$(receiving)" 0
expect "what is left of what was aborted" "$(find "$in" -mindepth 1 | wc -l)" 2

choose "$files/gibibyte"
await "the complaint" "document.getElementById('error').textContent" \
  'These are 1,073,741,824 bytes, and no more than 104,857,600 are taken at once.'
picture too-much
drive Network.emulateNetworkConditions '{"offline":false,"latency":0,"downloadThroughput":-1,"uploadThroughput":-1}'

# Dropped files: the page gets them from the event.
visit "$url/upload"
await "the page again" "$ready" 'Send files - krohttpd'
drop="(() => { const data = new DataTransfer(); data.items.add(new File(['abc'], 'dropped.txt'));"
drop+=" document.dispatchEvent(new DragEvent('drop', {dataTransfer: data, bubbles: true, cancelable: true})); return"
drop+=" document.getElementById('chosen').textContent; })()"
expect "the dropped file" "$(tell "$drop")" 'dropped.txt (3 bytes)'
tell "document.getElementById('send').click()" >/dev/null
await "the end of what was dropped" "$state" 'One file is stored.'
expect "what was dropped" "$(cat "$in/dropped.txt")" abc

# Without a script the form does the same.
drive Emulation.setScriptExecutionDisabled '{"value":true}'
visit "$url/upload"
await "the page without a script" "$ready" 'Send files - krohttpd'
expect "what only the script says" "$(tell "document.getElementById('hint').textContent")" 'Choose one or several.'
choose "$files/byte" "$files/mebibyte"
tell "document.getElementById('send').click()" >/dev/null
await "the answer" "$ready" 'Stored - krohttpd'
expect "what is told" "$(tell "Array.from(document.querySelectorAll('code')).map(code => code.textContent).join(' ')")" \
  "${hash[byte]} ${hash[mebibyte]}"
picture without-script
same "$files/mebibyte" "$in/mebibyte" "mebibyte from the browser"
tell "document.querySelector('a').click()" >/dev/null
await "the page behind the answer" "$ready" 'Send files - krohttpd'
! grep -E '"entry":|exceptionThrown|consoleAPICalled' "$LOGS/browser.log" || fail "the browser complains, see above"
# Where it began and went: only here.
! grep -o '"\(GET\|POST\) [^ ]*' "$folder/pages" | grep -v '/upload$' || fail "the page asked for something else"
close_browser
stop
