# shellcheck shell=sh
# Changes keys of the firmware's config.txt. Read by the others with ".", after card.sh.

# edit_config_txt CHANGE...: KEY=VALUE gives a key that value, KEY?=VALUE does so where it has none,
# and KEY alone takes it out.
#
# Only lines that hold for every board count: those before the first [filter], and those in an [all]
# section. There each key stands once afterwards, where it stood first; a new one comes at the end.
# Every other line is kept, line ends of both kinds too, and a file in which nothing changes is not
# written.
edit_config_txt() {
  file=$(card_folder)/config.txt
  [ -f "$file" ] || fail "there is no $file; expected the firmware's configuration there"
  file=$(readlink -f "$file")
  # shellcheck disable=SC2094  # both only read
  if edited "$@" <"$file" | cmp -s - "$file"; then return; fi
  replace "$file" edited_file "$@" || fail "cannot write $file; it is as it was"
}

edited_file() {
  edited "$@" <"$file"
}

edited() {
  # In awk, a line ends at its LF: a CR before it is part of the line.
  LC_ALL=C awk '
    BEGIN {
      for (i = 1; i < ARGC; ++i) {
        key = line = ARGV[i]
        sub(/\??=.*/, "", key)
        sub(/\?=/, "=", line)
        keys[i] = key
        wanted[key] = line ~ /=/ ? line : ""
        stays[key] = ARGV[i] ~ /\?=/
        count = i
      }
      ARGC = 1
      for_all = 1
    }
    {
      end = /\r$/ ? "\r" : ""
      if (NR == 1) end_of_file = end
    }
    /^[ \t]*\[/ { for_all = /^[ \t]*\[all\]/ }
    for_all && /^[ \t]*[A-Za-z0-9_]+[ \t]*=/ {
      key = $0
      gsub(/^[ \t]+|[ \t]*=.*/, "", key)
      if (key in wanted) {
        if (stays[key]) print
        else if (wanted[key] != "" && !(key in done)) print wanted[key] end
        done[key] = 1
        next
      }
    }
    { print }
    END {
      for (i = 1; i <= count; ++i) {
        key = keys[i]
        if (wanted[key] == "" || key in done) continue
        if (!for_all) print "[all]" end_of_file
        for_all = 1
        print wanted[key] end_of_file
      }
    }' "$@"
}
