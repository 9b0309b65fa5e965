#!/bin/sh
# Chooses the HDMI mode of the next start: hdmi-mode.sh GROUP MODE, with group 1 for CEA and 2 for
# DMT. Without arguments the display chooses.
set -eu
here=$(dirname "$(readlink -f "$0")")
. "$here/card.sh"
. "$here/config-txt.sh"

# A number that fits: of 1 to 3 digits, not 0.
is_mode() {
  case $1 in '' | 0* | *[!0-9]* | ????*) false ;; esac
}

case $# in
  0) edit_config_txt hdmi_group hdmi_mode ;;
  2)
    case $1 in 1 | 2) ;; *) fail "no group '$1'; expected 1 (CEA) or 2 (DMT)" ;; esac
    is_mode "$2" || fail "no mode '$2'; expected a number from 1 to 999"
    edit_config_txt "hdmi_group=$1" "hdmi_mode=$2"
    ;;
  *) fail "$# arguments; expected GROUP and MODE, or none" ;;
esac
