# bash completion for VellicorInspect

_VellicorInspect() {
  local current=${COMP_WORDS[COMP_CWORD]} given=() option='' model='' word view
  COMPREPLY=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ $option ]]; then
      option=''
      continue
    fi
    case $word in
      --match | --svg | --tensor | --expert | --output) option=$word ;;
      --*) ;;
      *) model=$word ;;
    esac
    [[ $word == --* ]] && given+=("$word")
  done
  case $option in
    --svg | --output)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
  esac
  [[ $option ]] && return
  if [[ ! $model && $current != -* ]]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
    return
  fi

  # Offer only options that go together with the ones before.
  local views=('--json' '--tensors --match --json' '--layers --json' '--svg --force' '--tensor --expert --output --force')
  ((${#given[@]} == 0)) && [[ ! $model ]] && views+=('--help')
  local offered=''
  for view in "${views[@]}"; do
    local rest=" $view "
    for word in "${given[@]}"; do
      [[ " $view " == *" $word "* ]] || continue 2
      [[ $word == --match ]] || rest=${rest/" $word "/ }
    done
    offered+=$rest
  done
  mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$current" | sort -u)
}

complete -F _VellicorInspect VellicorInspect
