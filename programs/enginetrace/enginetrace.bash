# shellcheck shell=bash
# Completion of enginetrace in bash: its options as it tells them itself, traces and folders.

# Short and long ones.
_enginetrace_options() {
  LANG=C "${1/#\~/$HOME}" --help 2>/dev/null |
    sed -n 's/^  \(-.\), \(--[a-z-]*\).*/\1\n\2/p; s/^      \(--[a-z-]*\).*/\1/p'
}

_enginetrace_files() {
  local IFS=$'\n'
  compopt -o filenames
  mapfile -t COMPREPLY < <(compgen -f -X '!*.trc' -- "$1"; compgen -d -- "$1")
}

_enginetrace() {
  local reader=$1 current=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]}
  local types="AGENT AGTT CLI CONNECTION CUL DBX DSL LCC ENTRY DXPL EXCPTN EXPR WZ4 GDE GDET"
  types+=" GMH GMHT GMHS ISD PMD RDR ERROR WARNING TLS MFI CLIP"
  COMPREPLY=()
  if [[ $current = = ]]; then
    current=
  elif [[ $option = = ]]; then
    option=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  case $option in
    --type | --not) mapfile -t COMPREPLY < <(compgen -W "$types" -- "$current") ;;
    --color) mapfile -t COMPREPLY < <(compgen -W "always never auto" -- "$current") ;;
    --html) compopt -o default ;;
    --thread | --function | --grep | --process | --since | --until | --head | --tail | -[ABC] | --*context) ;;
    *)
      if [[ $current = -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_enginetrace_options "$reader")" -- "$current")
      else
        _enginetrace_files "$current"
      fi
      ;;
  esac
}

complete -F _enginetrace enginetrace
