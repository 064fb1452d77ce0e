# shellcheck shell=bash
# Completion of cul-message-compiler in bash: the output, then a locale and its file for each
# language.

_cul_message_compiler() {
  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local locales="de_DE en_US es_ES fr_FR it_IT ja_JP ko_KR pt_BR zh_CN zh_TW"
  COMPREPLY=()
  if [ "$before" = -o ]; then
    compopt -o default
  elif [ "$current" = = ] || [ "$before" = = ]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "${current#=}")
  elif [[ $current = -* ]]; then
    COMPREPLY=(-o)
  else
    compopt -o nospace
    mapfile -t COMPREPLY < <(compgen -S = -W "$locales" -- "$current")
  fi
}

complete -F _cul_message_compiler cul-message-compiler
