#!/usr/bin/env bash
# lighttpd as the target of the proxy, over TCP and over a Unix socket, and as the server of kroget.
# shellcheck source=tests/wire/clients/daemon.sh
. "$(dirname "${BASH_SOURCE[0]}")/daemon.sh"
# shellcheck source=tests/wire/clients/peers.sh
. "$(dirname "${BASH_SOURCE[0]}")/peers.sh"
need curl
need lighttpd
need openssl

run_lighttpd() {
  rm -f "$folder/lighttpd.socket"
  cat >"$folder/lighttpd.conf" <<CONF
server.modules = ("mod_redirect", "mod_deflate", "mod_auth", "mod_authn_file", "mod_cgi")
server.bind = "127.0.0.1"
server.port = $1
server.document-root = "$folder/root"
server.errorlog = "$folder/lighttpd.errors"
index-file.names = ("index.html")
mimetype.assign = (".txt" => "text/plain", ".html" => "text/html", "" => "application/octet-stream")
deflate.mimetypes = ("text/plain")
deflate.allowed-encodings = ("gzip")
# What a program writes comes in chunks, as soon as there is some of it.
server.stream-response-body = 1
cgi.assign = (".cgi" => "/bin/sh", "/chunked" => "/bin/sh", "/nothing" => "/bin/sh")
url.redirect = ("^/(?:tcp|ipc)/moved$" => "one")
url.redirect-code = 302
auth.backend = "htpasswd"
auth.backend.htpasswd.userfile = "$folder/users"
auth.require = ("/tcp/locked" => ("method" => "basic", "realm" => "Locked", "require" => "valid-user"))
\$HTTP["url"] =~ "^/tcp/digest" {
  auth.backend = "htdigest"
  auth.backend.htdigest.userfile = "$folder/digests"
  auth.require = ("/tcp/digest" => ("method" => "digest", "realm" => "Test Device", "require" => "valid-user"))
}
\$SERVER["socket"] == "$folder/lighttpd.socket" {}
CONF
  launch lighttpd lighttpd -D -f "$folder/lighttpd.conf"
}

make_root
files=$folder/root/files
printf 'printf "Content-Type: text/plain\\r\\n\\r\\n"; sleep 0.1; cat numbers.txt\n' >"$files/chunked"
printf 'printf "Status: 204 No Content\\r\\n\\r\\n"\n' >"$files/nothing"
make_locked
start_peer lighttpd
check_kroget "$folder/lighttpd.socket"
check_login locked
check_login digest
# The body goes with the answer, too.
expect "kroget: a form behind Digest" "$("$KROGET" --fail -u "alice:$password" -d 'a=b' "$peer/tcp/digest/form.cgi?x=%20y&z")" \
  'POST x=%20y&z a=b'

start_proxy "${peer##*:}" "$folder/lighttpd.socket"
for route in /tcp /ipc; do check_route "$route"; done

# --- a gibibyte -------------------------------------------------------------------------------------------------------
"${fetch[@]}" "$url/tcp/gibibyte" | cmp - "$files/gibibyte" || fail "a gibibyte over TCP"
expect_little_memory "a gibibyte from a target over TCP"
"${fetch[@]}" --limit-rate 64M -r 0-134217727 "$url/ipc/gibibyte" |
  cmp - <(head -c 128M "$files/gibibyte") || fail "128 MiB over a Unix socket to a slow reader"
expect_little_memory "128 MiB from a target over a Unix socket to a slow reader"
stop_without_complaint proxy
end_peer lighttpd
