# Completion of nimbusctl's command lines in bash. What may follow is said by the tool's own tables.
# shellcheck shell=bash

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
      --host | --port | --timeout | --seconds | --for | --mp4 | --split) i=$((i + 1)) ;;
      --*) ;;
      *) before+=("$word") ;;
    esac
  done
  local choice
  choice=$("${typed[0]}" completion "${before[@]}" "$current" 2>/dev/null)
  mapfile -t COMPREPLY < <(compgen -W "$choice" -- "$current")
  # Bash replaces only what stands behind the last of these.
  local start=${current%"${current##*[:=@]}"}
  COMPREPLY=("${COMPREPLY[@]#"$start"}")
  if [[ ${COMPREPLY[0]-} == *= ]]; then compopt -o nospace 2>/dev/null; fi
}

complete -F _nimbusctl nimbusctl
