#!/bin/sh
# Installs the Debian packages the build needs when one is missing: as root it
# runs apt-get, otherwise it prints the command to run.
pkgs="cmake make g++ libgtest-dev libgmock-dev libbenchmark-dev libssl-dev clang libclang-rt-14-dev"
pkgs="$pkgs libmicrohttpd-dev nlohmann-json3-dev pkg-config"  # the status page
pkgs="$pkgs chromium python3-prometheus-client"                # its tests: a browser, a metrics parser
pkgs="$pkgs debhelper lintian fakeroot dpkg-dev systemd"       # make deb, and its test
pkgs="$pkgs libnats-dev nats-server"                           # rings on a JetStream stream
pkgs="$pkgs rsync"                                             # the benchmark's reference
missing=""
for p in $pkgs; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" = 0 ]; then
  echo "installing build packages:$missing"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q >/dev/null && apt-get install -y -q $missing >/dev/null || {
    echo "apt-get install failed for:$missing" >&2; exit 1; }
else
  echo "missing build packages; run as root:" >&2
  echo "  apt-get install -y$missing" >&2
  exit 1
fi
