#!/usr/bin/env bash
# krohttpd and curl: bodies of all sizes both ways, keep-alive, paths that lead out, Unix sockets.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
need curl
fetch=(curl --silent --show-error --max-time 60)

mkdir -p "$folder/root/sub"
echo secret >"$folder/secret"
ln -s ../secret "$folder/root/link"
head -c 3000000 /dev/urandom >"$folder/root/sub/data.bin"
echo 'a { }' >"$folder/root/style.css"
gzip -k "$folder/root/style.css"
head -c 104857600 /dev/urandom >"$folder/large"
head -c 1048576 "$folder/large" >"$folder/mebibyte"
printf x >"$folder/one"
: >"$folder/empty"
start --demo --root "$folder/root" --listen "unix:$folder/socket"

# --- a page -----------------------------------------------------------------------------------------------------------
expect "/hello" "$("${fetch[@]}" --fail "$url/hello")" "Hello, world!"
expect "size of /hello" "$("${fetch[@]}" -o /dev/null -w '%{size_download}' "$url/hello")" 13
expect "/hello over a Unix socket" "$("${fetch[@]}" --fail --unix-socket "$folder/socket" http://x/hello)" "Hello, world!"
expect "HTTP/1.0" "$("${fetch[@]}" --http1.0 -o /dev/null -w '%{http_code} %{http_version}' "$url/hello")" "200 1"
expect "/status" "$("${fetch[@]}" "$url/status" | sed 's/:[0-9][0-9]*/:N/g')" \
  "$(printf '{"version":"%s","connections":N,"replies":N,"uptime":N,"memory":N,"refused":{}}' "$("$KROHTTPD" --version | cut -d' ' -f2)")"

# --- echoes -----------------------------------------------------------------------------------------------------------
for name in empty one mebibyte large; do
  "${fetch[@]}" --fail --data-binary "@$folder/$name" -o "$folder/back" "$url/echo"
  same "$folder/$name" "$folder/back" "$name with a length"
  "${fetch[@]}" --fail -H 'Transfer-Encoding: chunked' --data-binary "@$folder/$name" -o "$folder/back" "$url/echo"
  same "$folder/$name" "$folder/back" "$name in chunks"
  "${fetch[@]}" --fail --http1.0 --data-binary "@$folder/$name" -o "$folder/back" "$url/echo"
  same "$folder/$name" "$folder/back" "$name over HTTP/1.0"
  rm "$folder/back"
done

# curl asks before it sends a large body, and goes on when it is told to.
"${fetch[@]}" --fail -v -H 'Expect: 100-continue' --expect100-timeout 50 --data-binary "@$folder/mebibyte" \
  -o "$folder/back" "$url/echo" 2>"$folder/said"
same "$folder/mebibyte" "$folder/back" "after 100 Continue"
grep -q '^< HTTP/1.1 100 Continue' "$folder/said" || fail "no 100 Continue: $(cat "$folder/said")"

# --- one connection for several requests ------------------------------------------------------------------------------------
expect "connections for three files" "$("${fetch[@]}" --fail -o /dev/null -o /dev/null -o /dev/null -w '%{num_connects} ' \
  "$url/hello" "$url/sub/data.bin" "$url/style.css")" "1 0 0 "
expect "connections for an echo and a page" "$("${fetch[@]}" --fail -o /dev/null -w '%{num_connects} ' -d abc "$url/echo" \
  --next --silent -o /dev/null -w '%{num_connects} ' "$url/hello")" "1 0 "
expect "connections for HEAD and GET" "$("${fetch[@]}" -o /dev/null -w '%{num_connects} ' --head "$url/sub/data.bin" \
  --next --silent -o "$folder/back" -w '%{num_connects} ' "$url/sub/data.bin")" "1 0 "
same "$folder/root/sub/data.bin" "$folder/back" "a file behind its HEAD"
expect "connections when the first is closed" "$("${fetch[@]}" -o /dev/null -w '%{num_connects} ' -H 'Connection: close' \
  "$url/hello" --next --silent -o /dev/null -w '%{num_connects} ' "$url/hello")" "1 1 "

# --- files --------------------------------------------------------------------------------------------------------------------
"${fetch[@]}" --fail --limit-rate 10M -o "$folder/back" "$url/sub/data.bin"
same "$folder/root/sub/data.bin" "$folder/back" "a file read slowly"
"${fetch[@]}" --fail --compressed -o "$folder/back" "$url/style.css"
same "$folder/root/style.css" "$folder/back" "a compressed file"
expect "length of a HEAD" "$("${fetch[@]}" --head "$url/sub/data.bin" | tr -d '\r' | sed -n 's/^Content-Length: //p')" 3000000
for path in /../secret /sub/../../secret /%2e%2e/secret /link //etc/passwd /../../../../../../etc/passwd /missing; do
  expect "status of $path" "$("${fetch[@]}" --path-as-is -o "$folder/page" -w '%{http_code}' "$url$path")" 404
  ! grep -q -e secret -e root: "$folder/page" || fail "$path leads out"
done

# --- what is refused ------------------------------------------------------------------------------------------------------------
expect "status without Host" "$("${fetch[@]}" -o /dev/null -w '%{http_code}' -H 'Host:' "$url/hello")" 400
expect "status of PATCH" "$("${fetch[@]}" -o /dev/null -w '%{http_code}' -X PATCH "$url/hello")" 501
expect "status of POST /hello" "$("${fetch[@]}" -o /dev/null -w '%{http_code}' -d abc "$url/hello")" 405
# A large body that nobody wants does not keep the refusal from being seen.
expect "status of a large POST /hello" \
  "$("${fetch[@]}" -o /dev/null -w '%{http_code}' -H 'Expect:' --data-binary "@$folder/large" "$url/hello" 2>/dev/null)" 405

# --- through a proxy ----------------------------------------------------------------------------------------------------------------
start_as proxy --proxy "/=tcp:127.0.0.1:$port" --proxy "/sub=ipc:$folder/socket"
expect "/hello through the proxy" "$("${fetch[@]}" --fail "$url/hello")" "Hello, world!"
"${fetch[@]}" --fail -o "$folder/back" "$url/sub/data.bin"
same "$folder/root/sub/data.bin" "$folder/back" "a file through the proxy and a Unix socket"
"${fetch[@]}" --fail --compressed -o "$folder/back" "$url/style.css"
same "$folder/root/style.css" "$folder/back" "a compressed file through the proxy"
head -c 5242880 "$folder/large" >"$folder/five"
for name in empty one five; do
  "${fetch[@]}" --fail -H 'Expect:' --data-binary "@$folder/$name" -o "$folder/back" "$url/echo"
  same "$folder/$name" "$folder/back" "$name with a length through the proxy"
  "${fetch[@]}" --fail -H 'Transfer-Encoding: chunked' --data-binary "@$folder/$name" -o "$folder/back" "$url/echo"
  same "$folder/$name" "$folder/back" "$name in chunks through the proxy"
  rm "$folder/back"
done
# The proxy tells curl to go on, and curl has not waited for that in vain.
"${fetch[@]}" --fail -v -H 'Expect: 100-continue' --expect100-timeout 50 --data-binary "@$folder/five" \
  -o "$folder/back" "$url/echo" 2>"$folder/said"
same "$folder/five" "$folder/back" "after 100 Continue of the proxy"
expect "interim replies of the proxy" "$(grep -c '^< HTTP/1.1 100 Continue' "$folder/said")" 1
! grep 'Done waiting for 100-continue' "$folder/said" || fail "the proxy gave no 100 Continue in time"
expect "connections to the proxy" "$("${fetch[@]}" --fail -w '%{num_connects} ' -o /dev/null -o /dev/null \
  -o "$folder/back" "$url/hello" "$url/style.css" "$url/sub/data.bin")" "1 0 0 "
same "$folder/root/sub/data.bin" "$folder/back" "the last of three replies of the proxy"
expect "status of /missing through the proxy" "$("${fetch[@]}" -o /dev/null -w '%{http_code}' "$url/missing")" 404
expect "status of POST /hello through the proxy" \
  "$("${fetch[@]}" -o /dev/null -w '%{http_code}' -d abc "$url/hello")" 405
stop proxy
stop
