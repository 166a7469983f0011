#!/usr/bin/env bash
# What an application gets: the installed library, its headers, its CMake package and its pkg-config file.
#
# usage: abi_test.sh STEP [ARGUMENT]     with, in the environment: SOURCE and BINARY (this project's folders), SANITIZE
#                                        (the build's sanitizers, may be empty), CMAKE, CC, CXX and READELF
# "install" makes the prefix that the other steps use. It is moved once: nothing in it may know where it was.
set -euo pipefail
export LC_ALL=C.UTF-8
work=$BINARY/abi
prefix=$work/prefix
strict=(-Wall -Wextra -pedantic -Werror)
instrument=()
[ -z "$SANITIZE" ] || instrument=("-fsanitize=$SANITIZE")

fail() {
  echo "failed: $1" >&2
  exit 1
}

fresh_folder() {
  rm -rf "${work:?}/$1"
  mkdir -p "$work/$1"
}

# The folder below the prefix that holds the library.
libdir() {
  dirname "$(find "$1" -name 'libkrohttp.*' | head -n 1)"
}

install_prefix() {
  rm -rf "${work:?}"
  mkdir -p "$work"
  "$CMAKE" --install "$BINARY" --prefix "$work/elsewhere" >"$work/install.log"
  mv "$work/elsewhere" "$prefix"
  # shellcheck disable=SC2153 # SOURCE comes with the environment
  ! grep -rlF -e "$work/elsewhere" -e "$SOURCE" "$prefix" --include='*.cmake' --include='*.pc' ||
    fail "these files name a folder of the build machine"
}

# find_package FOLDER CMAKE-ARGUMENT...: configures, builds and runs the consumer.
find_package() {
  local folder=$1
  shift
  fresh_folder "$folder"
  "$CMAKE" --no-warn-unused-cli -G Ninja -S "$SOURCE/tests/abi/consumer" -B "$work/$folder" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="${instrument[*]}" -DCMAKE_EXE_LINKER_FLAGS="${instrument[*]}" "$@"
  "$CMAKE" --build "$work/$folder"
  "$work/$folder/consumer"
}

# must_not_need_ours PROGRAM: the libraries are inside it.
must_not_need_ours() {
  ! dynamic "$1" NEEDED | grep -E 'krohttp|zel|krotrace' || fail "that is shared"
}

find_package_static() {
  find_package find_package_static -DSTATIC=ON
  must_not_need_ours "$work/find_package_static/consumer"
}

# compile SOURCE PROGRAM [--static] -- COMPILER-OPTION...: with the flags that pkg-config gives.
compile() {
  local source=$1 program=$2 static=() flags libraries
  shift 2
  [ "$1" = -- ] || { static=("$1"); shift; }
  shift
  export PKG_CONFIG_PATH
  PKG_CONFIG_PATH=$(libdir "$prefix")/pkgconfig
  flags=$(pkg-config "${static[@]}" --cflags krohttp)
  libraries=$(pkg-config "${static[@]}" --libs krohttp)
  # shellcheck disable=SC2086 # flags, to be split
  "$CC" -std=c11 "${strict[@]}" "$@" $flags "$source" -o "$program" $libraries
}

with_pkg_config() {
  fresh_folder pkg_config
  compile "$SOURCE/tests/abi/consumer/consumer.c" "$work/pkg_config/consumer" -- \
    -D_POSIX_C_SOURCE=200809L "${instrument[@]}"
  LD_LIBRARY_PATH=$(libdir "$prefix") "$work/pkg_config/consumer"
}

# From a prefix that has only the static libraries.
with_pkg_config_static() {
  fresh_folder pkg_config_static
  cp -r "$prefix" "$work/pkg_config_static/prefix"
  find "$work/pkg_config_static/prefix" -name '*.so*' -delete
  prefix=$work/pkg_config_static/prefix
  compile "$SOURCE/tests/abi/consumer/consumer.c" "$work/pkg_config_static/consumer" --static -- \
    -D_POSIX_C_SOURCE=200809L "${instrument[@]}"
  "$work/pkg_config_static/consumer"
  must_not_need_ours "$work/pkg_config_static/consumer"
}

# headers STANDARD: each public header compiles alone.
headers() {
  local compiler=$CC language=c header count=0
  case $1 in c++*) compiler=$CXX language=c++ ;; esac
  while read -r header; do
    printf '#include <%s>\ntypedef int nothing_else;\n' "$header" |
      "$compiler" -std="$1" "${strict[@]}" -fsyntax-only -x "$language" -I "$prefix/include" - ||
      fail "$header as $1"
    count=$((count + 1))
  done < <(cd "$prefix/include" && find . -name '*.h' | sed 's,^\./,,' | sort)
  [ "$count" -ge 19 ] || fail "only $count headers are installed"
  echo "$count headers are valid $1"
}

# dynamic FILE TAG[,TAG...]: the values of these entries of its dynamic section.
dynamic() {
  "$READELF" -d "$1" | sed -nE "s/.*\((${2//,/|})\).*\[(.*)\]/\2/p"
}

sonames() {
  local library version soname
  version=$(sed -nE 's/^project\(krohttp VERSION ([0-9.]+).*/\1/p' "$SOURCE/CMakeLists.txt")
  for library in krohttp zel_utils krotrace; do
    soname=$(dynamic "$(libdir "$prefix")/lib$library.so" SONAME)
    [ "$soname" = "lib$library.so.${version%%.*}" ] || fail "lib$library.so calls itself '$soname'"
    [ "$(readlink -f "$(libdir "$prefix")/$soname")" = "$(libdir "$prefix")/lib$library.so.$version" ] ||
      fail "$soname is no link to lib$library.so.$version"
    ! dynamic "$(libdir "$prefix")/$soname" RPATH,RUNPATH | grep -vxF "\$ORIGIN" || fail "$soname has that run path"
    echo "$soname"
  done
}

# The library built for a framework's own libraries, which the bundled ones play here.
external_platform() {
  local framework=$work/framework name built=$work/external
  fresh_folder framework
  fresh_folder external
  fresh_folder external_prefix
  mkdir -p "$framework/lib" "$framework/include"
  cp -r "$prefix/include/zel" "$prefix/include/krotrace" "$framework/include/"
  cp -P "$(libdir "$prefix")"/libzel_utils.so* "$(libdir "$prefix")"/libkrotrace.so* "$framework/lib/"
  for name in zel_dm zel_sl; do
    "$CC" -shared -o "$framework/lib/lib$name.so" -x c /dev/null -Wl,-soname,"lib$name.so"
  done

  "$CMAKE" -G Ninja -S "$SOURCE" -B "$built" -DKROHTTP_PLATFORM=external -DCMAKE_PREFIX_PATH="$framework" \
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" \
    -DKROHTTP_BUILD_APPS=OFF -DKROHTTP_BUILD_EXAMPLES=OFF
  "$CMAKE" --build "$built"
  [ -z "$(find "$built" -name 'libzel_utils*' -o -name 'libkrotrace*')" ] || fail "the bundled platform was built too"
  "$CMAKE" --install "$built" --prefix "$work/external_prefix" >"$built/install.log"
  [ ! -e "$work/external_prefix/include/zel" ] || fail "the framework's headers were installed too"
  ! grep -rlF "$framework" "$work/external_prefix" --include='*.cmake' --include='*.pc' ||
    fail "these files name the framework's folder"
  dynamic "$(libdir "$work/external_prefix")/libkrohttp.so" NEEDED | grep -xF "$(dynamic "$framework/lib/libzel_utils.so" SONAME)" ||
    fail "libkrohttp.so does not need the framework's libzel_utils"

  prefix=$work/external_prefix
  LD_LIBRARY_PATH=$framework/lib find_package external_consumer -DCMAKE_PREFIX_PATH="$prefix;$framework"
}

# The README's server, as it stands there: compiles, runs and answers.
readme() {
  local port line
  fresh_folder readme
  # shellcheck disable=SC2016 # the quotes are Markdown's
  sed -n '/^```c$/,/^```$/p' "$SOURCE/README.md" | sed '/^```/d' >"$work/readme/server.c"
  compile "$work/readme/server.c" "$work/readme/server" -- "${instrument[@]}"
  : >"$work/readme/out"
  LD_LIBRARY_PATH=$(libdir "$prefix") "$work/readme/server" 0 >"$work/readme/out" &
  server=$!
  trap 'kill "$server"; wait "$server" || true' EXIT
  for _ in {1..100}; do
    port=$(sed -nE 's,^http://127\.0\.0\.1:([0-9]+)/$,\1,p' "$work/readme/out")
    [ -z "$port" ] || break
    kill -0 "$server" || fail "the server ended"
    sleep 0.1
  done
  [ -n "$port" ] || fail "the server did not say where it listens"
  exec 3<>"/dev/tcp/127.0.0.1/$port"
  printf 'GET /world HTTP/1.0\r\n\r\n' >&3
  line=$(timeout 20 cat <&3 | tr -d '\r')
  echo "$line"
  [ "$(head -n 1 <<<"$line")" = "HTTP/1.0 200 OK" ] || fail "not the status line"
  [ "$(tail -n 1 <<<"$line")" = "Hello from /world" ] || fail "not the body"
}

case ${1:-} in
  install) install_prefix ;;
  find_package) find_package find_package ;;
  find_package_static) find_package_static ;;
  pkg_config) with_pkg_config ;;
  pkg_config_static) with_pkg_config_static ;;
  headers) headers "$2" ;;
  sonames) sonames ;;
  external_platform) external_platform ;;
  readme) readme ;;
  *) fail "no such step: ${1:-}" ;;
esac
