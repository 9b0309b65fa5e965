#!/bin/sh
# Chooses the video output of the next start: hdmi-change.sh 1 is HDMI, 0 is TV-out.
set -eu
here=$(dirname "$(readlink -f "$0")")
. "$here/card.sh"
. "$here/config-txt.sh"

[ $# -eq 1 ] || fail "$# arguments; expected one, 1 for HDMI or 0 for TV-out"
case $1 in
  1) edit_config_txt hdmi_force_hotplug=1 hdmi_ignore_hotplug ;;
  # Which TV norm the board's owner chose stays; 0 (NTSC) is the firmware's own choice.
  0) edit_config_txt hdmi_force_hotplug hdmi_ignore_hotplug=1 'sdtv_mode?=0' ;;
  *) fail "no output '$1'; expected 1 for HDMI or 0 for TV-out" ;;
esac
