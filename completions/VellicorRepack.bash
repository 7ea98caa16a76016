# bash completion for VellicorRepack

_VellicorRepack() {
  local current=${COMP_WORDS[COMP_CWORD]} given=() wants_value='' word mode
  COMPREPLY=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ $wants_value ]]; then
      wants_value=''
      continue
    fi
    case $word in
      --output | --input-morlen) wants_value=yes ;;
    esac
    given+=("$word")
  done
  if [[ $wants_value ]]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
    return
  fi

  # Offer only options that go together with the ones before.
  local modes=(
    '--output --overwrite --resume'
    '--discard-partial --output'
    '--verify-install --input-morlen'
  )
  [[ ${#given[@]} == 0 ]] && modes+=('--help')
  local offered=''
  for mode in "${modes[@]}"; do
    local rest=" $mode "
    for word in "${given[@]}"; do
      [[ " $mode " == *" $word "* ]] || continue 2
      rest=${rest/" $word "/ }
    done
    offered+=$rest
  done
  mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$current" | sort -u)
}

complete -F _VellicorRepack VellicorRepack
