#!/bin/sh
# in_netns.sh COMMAND...: runs COMMAND in a private network namespace whose
# loopback is up, so that a test may listen on fixed ports (the VXI-11 port
# mapper's 111) without meeting the machine's own services. Root makes a
# plain network namespace; anyone else a user namespace mapped to root.
# Failing to make the namespace fails the test: it is never skipped.
ip=$(command -v ip || echo /sbin/ip)
if [ "$(id -u)" = 0 ]; then flags="--net"; else flags="--user --map-root-user --net"; fi
if ! unshare $flags true; then
  echo "in_netns: cannot make a private network namespace (unshare $flags)" >&2
  exit 1
fi
exec unshare $flags sh -c '
  "$0" link set lo up || { echo "in_netns: cannot bring loopback up" >&2; exit 1; }
  exec "$@"' "$ip" "$@"
