#!/bin/sh
# Loads the system's own packet filter, whose file is system-rules.sh's argument, or takes it away,
# without one. Either takes away all rules that are there. Those of Nimbus, if they were there, come
# back in the same step: there is no moment without them. If somebody has spoilt the file of Nimbus'
# rules, they stay as they are.
set -u

system() {
  if [ $# -gt 0 ]; then echo "include \"$1\""; else echo "flush ruleset"; fi
}

# The rules are there even when their unit is not: it has failed if it was restarted with a spoilt
# file. And the unit is there without them when somebody has taken all rules away by hand.
were_there() {
  nft list table ip nimbus >/dev/null 2>&1 || systemctl -q is-active nimbus-filter
}

of_the_file() {
  if were_there; then echo 'include "/etc/nimbus/filter.nft"'; fi
}

as_they_are() {
  if were_there; then nft list table ip nimbus; fi
}

[ $# -le 1 ] || {
  echo "${0##*/}: $# arguments; expected a file of rules, or none" >&2
  exit 1
}
# Whatever is wrong with them, they keep nobody from the system's own.
{ system "$@" && of_the_file; } | nft -f - ||
  { system "$@" && as_they_are; } | nft -f - ||
  system "$@" | nft -f -
