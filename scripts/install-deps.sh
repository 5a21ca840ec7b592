#!/bin/sh
# Installs the Debian packages a task needs. Groups: build, test, servers,
# fuzz, bench, gui. Packages already present are not installed again.
set -eu

pkgs_build="build-essential cmake ninja-build pkg-config libsqlite3-dev libssl-dev qt6-base-dev"
pkgs_test="googletest libgtest-dev libgmock-dev openssl python3"
pkgs_servers="dovecot-imapd dovecot-pop3d dovecot-lmtpd postfix dante-server microsocks openssh-server openssh-client openssl"
pkgs_fuzz="clang libclang-rt-dev"
pkgs_bench="libbenchmark-dev libgmime-3.0-dev fetchmail isync notmuch"
pkgs_gui="qt6-base-dev"

want=""
for group in "$@"; do
  case "$group" in
    build) want="$want $pkgs_build" ;;
    test) want="$want $pkgs_test" ;;
    servers) want="$want $pkgs_servers" ;;
    fuzz) want="$want $pkgs_fuzz" ;;
    bench) want="$want $pkgs_bench" ;;
    gui) want="$want $pkgs_gui" ;;
    *) echo "install-deps: unknown group '$group'" >&2; exit 2 ;;
  esac
done

missing=""
for p in $want; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done
[ -z "$missing" ] && exit 0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"

# Package scripts would start the system-wide daemons on the standard ports;
# a policy-rc.d that refuses every start keeps them down.
if [ ! -e /usr/sbin/policy-rc.d ]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee /usr/sbin/policy-rc.d >/dev/null
  $SUDO chmod 755 /usr/sbin/policy-rc.d
fi
echo "postfix postfix/main_mailer_type select No configuration" | $SUDO debconf-set-selections 2>/dev/null || true

export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
# shellcheck disable=SC2086
$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing
