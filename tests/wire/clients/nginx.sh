#!/usr/bin/env bash
# nginx as the target of the proxy, over TCP and over a Unix socket, and as the server of kroget.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
# shellcheck source=tests/wire/clients/peers.sh
. "$(dirname "${BASH_SOURCE[0]}")/peers.sh"
need curl
need nginx
need openssl

run_nginx() {
  rm -f "$folder/nginx.socket"
  launch_nginx <<CONF
access_log off;
sendfile on;
default_type application/octet-stream;
types {
  text/plain txt;
  text/html html;
}
gzip on;
gzip_types text/plain;
absolute_redirect off;
client_max_body_size 0;
server {
  listen 127.0.0.1:$1;
  listen unix:$folder/nginx.socket;
  root $folder/root;
  location ~ /nothing\$ {
    return 204;
  }
  location ~ /moved\$ {
    return 302 one;
  }
  location ~ /cookies/set\$ {
    add_header Set-Cookie "a=1; path=/tcp/cookies";
    add_header Set-Cookie "kro/sessid=x+/y=; path=/; HttpOnly; SameSite=Lax";
    add_header Set-Cookie "long=3; max-age=1000000";
    add_header Set-Cookie "dated=4; expires=Wed, 09 Jun 2088 10:18:14 GMT";
    add_header Set-Cookie "empty=";
    return 200 set;
  }
  location ~ /cookies/clear\$ {
    add_header Set-Cookie "a=; path=/tcp/cookies; max-age=0";
    return 200 cleared;
  }
  location ~ /cookies/show\$ {
    return 200 "[\$http_cookie]";
  }
  # The filter could change the length.
  location ~ /chunked\$ {
    alias $folder/root/files/numbers.txt;
    sub_filter_types *;
    sub_filter nowhere somewhere;
  }
  # The realm is sent as it stands here, with its quotes.
  location ~ /locked/ {
    auth_basic "Locked, \"really\"";
    auth_basic_user_file $folder/users;
    dav_methods PUT DELETE;
    create_full_put_path on;
  }
  location ~ /put/ {
    dav_methods PUT DELETE;
    create_full_put_path on;
  }
}
CONF
}

make_root
files=$folder/root/files
make_locked
start_peer nginx
check_kroget "$folder/nginx.socket"
check_login locked
"$KROGET" -u "alice:$password" --fail -T "$files/mebibyte" "$peer/tcp/locked/upload" || fail "kroget: upload with Basic"
same "$files/mebibyte" "$files/locked/upload" "kroget: upload with Basic"
rm "$files/locked/upload"
check_cookies

start_proxy "${peer##*:}" "$folder/nginx.socket"
for route in /tcp /ipc; do
  check_route "$route"

  tag=$("${fetch[@]}" --head "$peer/tcp/one" | tr -d '\r' | sed -n 's/^ETag: //p')
  alike 304 "$route/one" -H "If-None-Match: $tag"
  alike 405 "$route/one" -d abc
  # Chunks whose number and end nobody knows before.
  alike 200 "$route/numbers.txt" -H 'Accept-Encoding: gzip'
  expect "coding of $route/numbers.txt" "$(header Transfer-Encoding) $(header Content-Encoding)" "chunked gzip"

  # Uploads, with a length and in chunks, asked for and not; the later ones replace what is there.
  for options in '' '-H Expect:' '-H Transfer-Encoding:chunked' '-H Expect: -H Transfer-Encoding:chunked'; do
    # shellcheck disable=SC2086 # a list of options
    status=$("${fetch[@]}" -o /dev/null -w '%{http_code}' $options -T "$files/mebibyte" "$url$route/put/mebibyte")
    case $status in 201 | 204) ;; *) fail "upload to $route $options: status $status" ;; esac
    same "$files/mebibyte" "$files/put/mebibyte" "upload to $route $options"
    : >"$files/put/mebibyte"
  done
  expect "deletion" "$("${fetch[@]}" -o /dev/null -w '%{http_code}' -X DELETE "$url$route/put/mebibyte")" 204
done

# --- kroget through the proxy, and its uploads ------------------------------------------------------------------------
for base in "$peer" "$url"; do
  "$KROGET" --fail -T "$files/mebibyte" "$base/tcp/put/by-kroget" || fail "kroget: upload to $base"
  same "$files/mebibyte" "$files/put/by-kroget" "kroget: upload to $base"
  : >"$files/put/by-kroget"
  "$KROGET" --fail -T - "$base/tcp/put/by-kroget" <"$files/mebibyte" || fail "kroget: upload in chunks to $base"
  same "$files/mebibyte" "$files/put/by-kroget" "kroget: upload in chunks to $base"
  rm "$files/put/by-kroget"
done

# --- a gibibyte each way ----------------------------------------------------------------------------------------------
"${fetch[@]}" "$url/tcp/gibibyte" | cmp - "$files/gibibyte" || fail "a gibibyte over TCP"
expect_little_memory "a gibibyte from a target over TCP"
"${fetch[@]}" "$url/ipc/gibibyte" | cmp - "$files/gibibyte" || fail "a gibibyte over a Unix socket"
expect_little_memory "a gibibyte from a target over a Unix socket"
"${fetch[@]}" --limit-rate 64M -r 0-268435455 "$url/tcp/gibibyte" | cmp - <(head -c 256M "$files/gibibyte") ||
  fail "256 MiB to a slow reader"
expect_little_memory "256 MiB to a slow reader"
# nginx writes it to the disk, where a gibibyte would be a little much.
cp --sparse=always "$files/gibibyte" "$folder/part"
truncate -s 256M "$folder/part"
"${fetch[@]}" -o /dev/null -T "$folder/part" "$url/tcp/put/part"
same "$folder/part" "$files/put/part" "256 MiB to the target"
rm "$files/put/part"
expect_little_memory "256 MiB to the target"
expect "standard error of the proxy" "$(cat "$folder/proxy.err")" ""
end_peer nginx
for route in /tcp /ipc; do
  expect "status of $route without a target" "$("${fetch[@]}" -o /dev/null -w '%{http_code}' "$url$route/one")" 504
done
stop proxy

# --- a target that reads slowly ---------------------------------------------------------------------------------------
launch slow perl "$(dirname "${BASH_SOURCE[0]}")/slow_target.pl" "$files/gibibyte"
port=
for ((try = 0; try < 100; try++)); do
  port=$(cat "$folder/slow.out")
  [ -z "$port" ] || break
  sleep 0.05
done
[ -n "$port" ] || fail "the slow target did not start: $(cat "$folder/slow.err")"
start_proxy "$port" "$folder/none"
expect "a gibibyte to a target that reads slowly" "$("${fetch[@]}" -T "$files/gibibyte" "$url/tcp/x")" \
  "1073741824 bytes, all as expected"
expect_little_memory "a gibibyte to a target that reads slowly"
stop_without_complaint proxy
end_peer slow
