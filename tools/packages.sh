# shellcheck shell=bash
# The Debian packages this project uses, each with its reason, and how they get onto the machine.
# Sourced by run.sh, test.sh and the tools; the one place where a dependency is written down.

packages_table() {
  cat <<'TABLE'
build  cmake              configures the build (3.25 or newer)
build  ninja-build        runs the build
build  g++                the C++20 and C11 compilers, nm and readelf
build  pkgconf            finds libuv
build  libuv1-dev         event loop underneath the bundled platform
build  libcli11-dev       the command lines of krohttpd and kroget
build  libssl-dev         MD5 for Digest authentication (libcrypto)
test   libgtest-dev       the test framework
test   curl               a real client for the wire tests
test   wget               a second real client, with another idea of keep-alive
test   chromium           a real browser for the bundled site
test   valgrind           memory checks of the optimised daemon
test   wrk                many connections at once for the load tests
test   nginx-light        a real server behind the proxy, and for kroget
test   lighttpd           a second one, with other habits
test   haproxy            a real proxy in front of krohttpd
test   openssl            password files for these two
test   clang              builds the fuzz targets
test   libclang-rt-dev    libFuzzer, and the sanitizers for clang
bench  libbenchmark-dev   the micro benchmarks
bench  wrk                the load generator of bench/load
bench  nginx-light        a server to compare with
bench  lighttpd           a server to compare with
bench  libmicrohttpd-dev  a library to compare with
fuzz   clang              builds the fuzz targets
fuzz   libclang-rt-dev    libFuzzer, and the sanitizers for clang
cover  gcovr              counts lines and branches that the tests have reached
lint   clang-format       the layout of the sources
lint   clang-tidy         static analysis
lint   shellcheck         static analysis of the shell scripts
fresh  debootstrap        makes the bare Debian of tools/fresh-machine
TABLE
}

# packages_missing GROUP...: the packages of these groups that are not installed, one a line.
packages_missing() {
  local group package reason
  packages_table | while read -r group package reason; do
    case " $* " in *" $group "*) ;; *) continue ;; esac
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || echo "$package"
  done | sort -u
}

# packages_reason PACKAGE GROUP...: what the package is for in the first of these groups that has it.
packages_reason() {
  local wanted=$1 group package reason
  shift
  packages_table | while read -r group package reason; do
    case " $* " in *" $group "*) ;; *) continue ;; esac
    [ "$package" = "$wanted" ] && { echo "$reason"; break; }
  done
}

# packages_install GROUP...: installs what is missing and says what and why; silent when nothing is.
# Fails with one line on standard error.
packages_install() {
  if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
    echo "${0##*/}: no apt-get here; install the packages of tools/packages.sh by hand and use --no-install" >&2
    return 1
  fi
  local missing package
  missing=$(packages_missing "$@")
  [ -n "$missing" ] || return 0

  local as_root=(env)
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "${0##*/}: missing packages: $(echo "$missing" | xargs); run as root, or install sudo" >&2
      return 1
    fi
    as_root=(sudo env)
  fi

  echo "Installing what is missing:"
  for package in $missing; do
    printf '  %-17s %s\n' "$package" "$(packages_reason "$package" "$@")"
  done
  local log
  log=$(mktemp "${TMPDIR:-/tmp}/krohttp-apt.XXXXXX") || return 1
  local apt=("${as_root[@]}" DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 apt-get -qq -o DPkg::Lock::Timeout=300
    -o Acquire::Retries=3)
  # shellcheck disable=SC2086 # a list of package names
  if "${apt[@]}" update >"$log" 2>&1 &&
    "${apt[@]}" install -y --no-install-recommends $missing >>"$log" 2>&1; then
    rm -f "$log"
  else
    tail -n 15 "$log" >&2
    echo "${0##*/}: apt-get failed; the whole of its output is in $log" >&2
    return 1
  fi
}
