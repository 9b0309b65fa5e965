#!/bin/sh
# Makes /run/tervado.conf, which the service reads at its start, from tervado-nimbus.conf on the
# card, and a file of defaults there when the card has none. A good copy of the file is kept beside
# it, for a start that finds it spoilt. Whatever is wrong with the card, the service shall start:
# this script says it in one line, does what it can, and succeeds.
set -u
here=$(dirname "$(readlink -f "$0")")
. "$here/card.sh"

defaults=$here/../tervado-nimbus.conf
name=tervado-nimbus.conf
card_file=/boot/$name
working_copy=/run/tervado.conf
# There while the settings are not those of the card: a save then keeps the card's.
card_unread=/run/tervado.card-unread
# How a file begins that the service has written, and the last key in it.
header='# Tervado config file'
last_key=internal_camera_fullscreen

say() {
  echo "${0##*/}: $*" >&2
}

# The service saves in /boot. Where the card is mounted at /boot/firmware, a link in /boot brings
# the saves to the card, so that the file can be edited on any desktop.
link_to_card() {
  if mountpoint -q /boot || ! mountpoint -q /boot/firmware; then return; fi
  if [ -e "$card_file" ] || [ -L "$card_file" ]; then return; fi
  ln -s "firmware/$name" "$card_file" 2>/dev/null ||
    say "cannot link $card_file to the card; settings are not saved"
}

create_defaults() {
  if [ -e "$1" ]; then return; fi
  if replace "$1" cat "$defaults"; then
    say "there was no $1; it has the defaults now"
  else
    say "there is no $1, and it cannot be written"
  fi
}

holds_zeros() {
  # shellcheck disable=SC2094  # both only read
  ! tr -d '\000' <"$1" 2>/dev/null | cmp -s - "$1"
}

# fault_of FILE: what is wrong with it, or nothing. A file that was being written when the board
# lost its power may be empty, hold zeros, or be cut short.
fault_of() {
  if ! [ -f "$1" ] || ! [ -r "$1" ]; then
    echo "cannot be used"
  elif ! [ -s "$1" ]; then
    echo "is empty"
  elif holds_zeros "$1"; then
    echo "holds zeros"
  elif ! LC_ALL=C grep -qE "^[[:blank:]]*${last_key}[[:blank:]]*[=:][[:blank:]]*[0-9]" "$1"; then
    echo "lacks its last key, $last_key"
  fi
}

whole() {
  [ -z "$(fault_of "$1")" ]
}

# Sets "source" to the file that the working copy is made from; to nothing to leave it as it is.
find_source() {
  fault=$(fault_of "$file")
  source=$file
  if [ -z "$fault" ]; then return; fi
  if whole "$working_copy"; then
    # Made since the board was switched on, when the card was in order.
    source=
    say "$file $fault; the settings are those of the last start"
  elif whole "$good_copy"; then
    source=$good_copy
    say "$file $fault; the settings are those of the last good copy, $good_copy"
  elif [ "${fault#lacks}" != "$fault" ]; then
    # A short file that somebody wrote by hand is in order.
    if grep -qF "$header" "$file"; then say "$file $fault; the settings are those that it has"; fi
  elif [ -s "$working_copy" ]; then
    source=
    say "$file $fault; the settings are those of the last start"
  else
    source=$defaults
    say "$file $fault; the settings are the defaults"
  fi
}

# Keeps a copy of what the card has, if that is good.
keep_good_copy() {
  if [ "$source" != "$file" ] || [ -n "$fault" ] || cmp -s "$file" "$good_copy"; then return; fi
  replace "$good_copy" cat "$file"
}

# Empty files and zeros are nobody's settings; any other that was not read may be.
mark_card() {
  if [ "$card" = mounted ] && [ "$copied" = yes ] && { [ "$source" = "$file" ] || [ "$fault" = "is empty" ] ||
    [ "$fault" = "holds zeros" ]; }; then
    rm -f "$card_unread"
  else
    : >"$card_unread"
  fi
}

without_cr() {
  sed 's/\r$//' "$source"
}

file=$card_file
card=mounted
if mounted_if_meant /boot && mounted_if_meant /boot/firmware; then
  link_to_card
  file=$(readlink -f "$card_file") || file=$card_file
  create_defaults "$file"
else
  card=absent
  say "the card cannot be mounted"
fi
good_copy=$file.good
umask 077  # pass phrases; saves write into the same file
find_source
copied=yes
if [ -n "$source" ] && ! replace "$working_copy" without_cr; then
  copied=no
  say "cannot write $working_copy"
fi
if [ "$card" = mounted ]; then keep_good_copy; fi
mark_card 2>/dev/null
exit 0
