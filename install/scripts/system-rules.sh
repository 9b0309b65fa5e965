#!/bin/sh
# Loads the system's own packet filter, whose file is system-rules.sh's argument, or takes it away,
# without one. Either takes away all rules that are there. Those of Nimbus, if they were there, come
# back in the same step: there is no moment without them.
set -u

system() {
  if [ $# -gt 0 ]; then echo "include \"$1\""; else echo "flush ruleset"; fi
}

nimbus() {
  if systemctl -q is-active nimbus-filter; then echo 'include "/etc/nimbus/filter.nft"'; fi
}

[ $# -le 1 ] || {
  echo "${0##*/}: $# arguments; expected a file of rules, or none" >&2
  exit 1
}
# Rules of Nimbus that somebody has spoilt keep nobody from the system's own.
{ system "$@" && nimbus; } | nft -f - || system "$@" | nft -f -
