#!/bin/sh
# Makes /run/tervado.conf, which the service reads at its start, from tervado-nimbus.conf on the
# card, and a file of defaults there when the card has none. Whatever is wrong with the card, the
# service shall start: this script says it in one line, does what it can, and succeeds.
set -u
here=$(dirname "$(readlink -f "$0")")
. "$here/card.sh"

defaults=$here/../tervado-nimbus.conf
name=tervado-nimbus.conf
card_file=/boot/$name
working_copy=/run/tervado.conf

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

# The file that the working copy is made from, or nothing to leave it as it is.
source_file() {
  if [ -f "$file" ] && [ -r "$file" ] && [ -s "$file" ]; then
    echo "$file"
  elif [ -s "$working_copy" ]; then
    # Made from the card since the board was switched on, when the card could still be read.
    say "$file cannot be used; the settings are those of the last start"
  else
    say "$file cannot be used; the settings are the defaults"
    echo "$defaults"
  fi
}

without_cr() {
  sed 's/\r$//' "$source"
}

file=$card_file
if mounted_if_meant /boot && mounted_if_meant /boot/firmware; then
  link_to_card
  file=$(readlink -f "$card_file") || file=$card_file
  create_defaults "$file"
else
  say "the card cannot be mounted"
fi
source=$(source_file)
if [ -n "$source" ]; then
  umask 077  # pass phrases; saves write into the same file
  replace "$working_copy" without_cr || say "cannot write $working_copy"
fi
exit 0
