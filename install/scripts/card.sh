# shellcheck shell=sh
# What the scripts of the installation know of the card: the FAT partition that the firmware boots
# from. Read by the others with ".".

# Says what is wrong, and ends the script.
fail() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# Mounts the partition that belongs at a folder, if it is not there: a save that was interrupted may
# have left it unmounted. False when that fails; what is then seen in the folder is not the card.
# (mount succeeds without a word where fstab has nofail, and there is no card.)
mounted_if_meant() {
  mountpoint -q "$1" || ! findmnt --fstab -n "$1" >/dev/null 2>&1 ||
    { mount "$1" 2>/dev/null && mountpoint -q "$1"; }
}

# The folder at which the card is mounted. Raspberry Pi OS mounts it at /boot, since bookworm at
# /boot/firmware.
card_folder() {
  if mountpoint -q /boot/firmware; then echo /boot/firmware; else echo /boot; fi
}

# Whether the file system of a path is mounted read-only.
read_only() {
  findmnt -n -o OPTIONS -T "$1" | grep -qE '(^|,)ro(,|$)'
}

# replace FILE COMMAND...: replaces FILE by the output of COMMAND, whole or not at all, whenever the
# board loses its power. A partition that is mounted read-only is made writable for that long.
# Fails without a word when there is no way.
replace() (
  target=$1
  fresh=$target.new
  shift
  mount_point=$(findmnt -n -o TARGET -T "${target%/*}") || mount_point=
  restore() {
    rm -f "$fresh"
    if [ -n "$remounted" ]; then mount -o remount,ro "$remounted"; fi
  }
  remounted=
  trap restore EXIT
  trap 'exit 1' HUP INT TERM
  if [ -n "$mount_point" ] && read_only "${target%/*}"; then
    mount -o remount,rw "$mount_point" || exit 1
    remounted=$mount_point
  fi
  rm -rf "$fresh"
  "$@" >"$fresh" || exit 1
  # On a card whose files are all somebody's (mounted with uid=), only he may, and modes mean
  # nothing.
  if [ -e "$target" ]; then chmod --reference="$target" "$fresh" || true; fi
  # A rename that reached the card before the data would leave an empty file.
  sync "$fresh" || exit 1
  # On FAT, a cut may leave on the card that the former data was freed, and the entry that leads to
  # it: nothing is freed as long as somebody has it open. The entry under the name of before goes
  # first: of two that lead to the same data, a check empties one.
  if [ -f "$target" ]; then exec 3<"$target"; fi
  mv -T "$fresh" "$target" || exit 1
  sync "${target%/*}" "$target" || true
  exec 3<&-
  sync "${target%/*}" || true
) 2>/dev/null
