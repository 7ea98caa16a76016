# bash completion for VellicorProgress

_VellicorProgress() {
  local current=${COMP_WORDS[COMP_CWORD]}
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W '-- --help --version' -- "$current")
  elif [[ ${COMP_WORDS[1]} == -- ]] && ((COMP_CWORD == 2)); then
    mapfile -t COMPREPLY < <(compgen -c -- "$current")
  elif [[ ${COMP_WORDS[1]} == -- ]] && declare -F _command_offset >/dev/null; then
    # As that command completes them.
    _command_offset 2
  fi
}

complete -o default -F _VellicorProgress VellicorProgress
