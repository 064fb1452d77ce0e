# shellcheck shell=bash
# Completion of enginehost in bash: its options and small commands as it tells them itself, and then
# those of the program.

# The host's own words about itself, whatever the settings of the user are.
_enginehost_help() {
  env -i PATH="$PATH" LD_LIBRARY_PATH="${LD_LIBRARY_PATH-}" "${1/#\~/$HOME}" --help 2>/dev/null
}

# Where the program stands among the words before the current one; 0 when it does not.
_enginehost_program() {
  local i
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --) echo $((i + 1)) && return ;;
      =) ((++i)) ;; # the value of an option
      -*) ;;
      *) echo "$i" && return ;;
    esac
  done
  echo 0
}

_enginehost_from() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2"); }

_enginehost() {
  local host=$1 current=${COMP_WORDS[COMP_CWORD]} program words
  COMPREPLY=()

  case ${COMP_WORDS[1]} in
    -settings | -processes)
      if ((COMP_CWORD > 1)); then
        ((COMP_CWORD > 2)) || _enginehost_from --json "$current"
        return
      fi
      ;;
    -properties)
      if ((COMP_CWORD > 1)); then
        ((COMP_CWORD > 2)) || compopt -o default
        return
      fi
      ;;
    -convert)
      if ((COMP_CWORD > 1)); then
        ((COMP_CWORD > 3)) ||
          _enginehost_from "escapes native VKT-1047 $(iconv --list | sed 's|/*$||')" "$current"
        return
      fi
      ;;
  esac

  program=$(_enginehost_program)
  if ((program == 0)) && [[ $current != -* ]]; then
    if [[ $current = = || ${COMP_WORDS[COMP_CWORD - 1]} = = ]]; then
      return # the value of an option
    fi
    program=$COMP_CWORD
  fi
  if ((program > 0)); then
    if declare -F _command_offset >/dev/null; then
      _command_offset "$program"
    elif ((program == COMP_CWORD)); then
      mapfile -t COMPREPLY < <(compgen -c -- "$current")
    else
      compopt -o default
    fi
    return
  fi

  words=$(_enginehost_help "$host")
  local options commands=
  options=$(sed -n 's/^  \(-[^ =]*=\{0,1\}\).*/\1/p' <<<"$words")
  if ((COMP_CWORD == 1)); then
    commands=$(sed -n 's/^ *enginehost \(-[^ ]*\).*/\1/p' <<<"$words")
  fi
  _enginehost_from "-- $options $commands" "$current"
  if ((${#COMPREPLY[@]} == 1)) && [[ ${COMPREPLY[0]} = *= ]]; then
    compopt -o nospace
  fi
}

complete -F _enginehost enginehost
