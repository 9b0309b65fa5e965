# Completion of nimbusctl's command lines in bash. Tests hold it to the tool's own tables.
# shellcheck shell=bash

# What may stand behind these words, options left out.
_nimbusctl_next() {
  local on_off="on off"
  local settings="rcin_enabled rcin_mode rcin_map rcin_speed rcin_pan rcin_tilt rcin_dutch
    rcin_pan_inv rcin_tilt_inv rcin_dutch_inv rcin_exp rcin_abs internal_camera_enabled
    internal_camera_fullscreen osd_enabled hdmi_enabled hdmimode osd_borders osd_offset
    osd_top_offset osd_bottom_offset video_bitrate video_transcode_enabled disable_video_stream
    video_hflip video_vflip video_resolution wifi"
  case "$*" in
    "") echo "watch top video capture hud config wifi send speed mode shot shotmode record iso shutter aperture
      ev wb color antiflicker exposure histogram resolution aspect focus tracking gimbal
      orientation channels format-card reset-camera recalibrate restart reboot shutdown" ;;
    config) echo "set" ;;
    "config set") echo "$settings" ;;
    "config set rcin_enabled" | "config set rcin_exp" | "config set rcin_abs" | \
      "config set internal_camera_enabled" | "config set internal_camera_fullscreen" | \
      "config set osd_enabled" | "config set hdmi_enabled" | \
      "config set video_transcode_enabled" | "config set disable_video_stream" | \
      "config set video_hflip" | "config set video_vflip") echo "$on_off" ;;
    "config set video_resolution") echo "320x240 640x480 1280x720" ;;
    "config set wifi"*) echo "cam_iface= cam_ssid= cam_psk= lan_iface= lan_ssid= lan_psk= ap_iface=
      ap_ssid= ap_psk= ap_mode= ap_channel= ap_country=" ;;
    wifi) echo "scan" ;;
    "wifi scan") echo "wifi0 wlan0" ;;
    mode) echo "photo video" ;;
    shotmode) echo "raw jpg jpg+raw" ;;
    record) echo "start stop" ;;
    iso) echo "auto 100 200 400 800 1600 3200 6400" ;;
    shutter) echo "30s 25s 20s 15s 10s 9s 8s 7s 6s 5s 4s 3.2s 3s 2.5s 2s 1.6s 1.3s 1s 1/1.25 1/1.67
      1/2 1/2.5 1/3 1/4 1/5 1/6.25 1/8 1/10 1/12.5 1/15 1/20 1/25 1/30 1/40 1/50 1/60 1/80 1/100
      1/120 1/160 1/200 1/240 1/320 1/400 1/500 1/640 1/800 1/1000 1/1250 1/1600 1/2000 1/2500
      1/3200 1/4000 1/5000 1/6400 1/8000" ;;
    ev) echo "-3 -2.7 -2.3 -2 -1.7 -1.3 -1 -0.7 -0.3 0 0.3 0.7 1 1.3 1.7 2 2.3 2.7 3" ;;
    wb) echo "custom auto sunny cloudy incandescent neon" ;;
    color) echo "none art vivid d-cinelike portrait beach dream classic nostalgia d-log d-clike" ;;
    antiflicker) echo "off 50 60" ;;
    exposure) echo "mode point center lock unlock" ;;
    "exposure mode") echo "auto shutter aperture manual" ;;
    histogram | channels) echo "$on_off" ;;
    resolution) echo "4096x2160@25 4096x2160@24 3840x2160@60 3840x2160@30 3840x2160@25 3840x2160@24
      2704x1520@30 2704x1520@25 2704x1520@24 1920x1080@60 1920x1080@50 1920x1080@48 1920x1080@30
      1920x1080@25 1920x1080@24 1280x720@60 1280x720@50 1280x720@48 1280x720@30 1280x720@25
      1280x720@24 1920x1080@120" ;;
    aspect) echo "4:3 16:9" ;;
    focus) echo "type" ;;
    "focus type") echo "afc afs" ;;
    tracking) echo "start stop" ;;
    gimbal) echo "mode follow centre selfie calibrate move speed goto" ;;
    "gimbal mode") echo "tiltlocked fpv follow" ;;
    "gimbal follow") echo "fast slow" ;;
    orientation) echo "lock unlock" ;;
  esac
}

# The options of a command; the first word tells which it is.
_nimbusctl_options() {
  local everywhere="--host --port --timeout --help"
  case "$1" in
    "") echo "$everywhere --version" ;;
    watch) echo "$everywhere --json --seconds" ;;
    top | video | capture) echo "$everywhere --seconds" ;;
    hud) echo "$everywhere --json --follow --seconds" ;;
    config) echo "$everywhere --json --force" ;;
    wifi | send) echo "$everywhere" ;;
    speed) echo "$everywhere --for" ;;
    format-card | reset-camera | recalibrate | restart | reboot | shutdown)
      echo "$everywhere --force --yes" ;;
    *) echo "$everywhere --force" ;;
  esac
}

_nimbusctl() {
  # Not COMP_WORDS: bash splits values such as 16:9 there.
  local line=${COMP_LINE:0:COMP_POINT} typed=() before=() word current="" i
  read -ra typed <<<"$line"
  if [[ $line != *[[:space:]] ]]; then
    current=${typed[-1]}
    unset 'typed[-1]'
  fi
  for ((i = 1; i < ${#typed[@]}; i++)); do
    word=${typed[i]}
    case "$word" in
      --host | --port | --timeout | --seconds | --for) i=$((i + 1)) ;;
      --*) ;;
      *) before+=("$word") ;;
    esac
  done
  local choice
  choice=$(_nimbusctl_next "${before[@]}")
  if [[ $current == --* ]]; then choice=$(_nimbusctl_options "${before[0]-}"); fi
  mapfile -t COMPREPLY < <(compgen -W "$choice" -- "$current")
  # Bash replaces only what stands behind the last of these.
  local start=${current%"${current##*[:=@]}"}
  COMPREPLY=("${COMPREPLY[@]#"$start"}")
  if [[ ${COMPREPLY[0]-} == *= ]]; then compopt -o nospace 2>/dev/null; fi
}

complete -F _nimbusctl nimbusctl
