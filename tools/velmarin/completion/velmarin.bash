# Completion of velmarin(1) for bash.

# Offers what compgen makes of its arguments for the word being completed. Readline makes words of
# their own of the parts of --option=value.
_velmarin_offer() {
  mapfile -t COMPREPLY < <(compgen "$@" -- "${COMP_WORDS[COMP_CWORD]#=}")
}

_velmarin_offer_names() {
  compopt -o filenames 2>/dev/null
  _velmarin_offer "$1"
}

# The value of the option before the word being completed. Fails if that option takes none.
_velmarin_value() {
  local option=${COMP_WORDS[COMP_CWORD - 1]}
  [[ $option == = ]] && option=${COMP_WORDS[COMP_CWORD - 2]}
  case $option in
    --state) _velmarin_offer_names -d ;;
    --skip | --config | --html | --exclude-from | --roots-from) _velmarin_offer_names -f ;;
    --min-size | --max-size) _velmarin_offer -W '0 4K 64K 1M 1G' ;;
    --time-budget) _velmarin_offer -W '5m 30m 1h 2h' ;;
    --max-depth | --exclude | --include) COMPREPLY=() ;;
    *) return 1 ;;
  esac
}

_velmarin() {
  local command=${COMP_WORDS[1]} names=-f options='--verbose --help --version' word
  if ((COMP_CWORD == 1)); then
    options='--help --version'
    _velmarin_offer -W "scan apply history dedup info recover group copy revoke freeze flags $options"
    return
  fi
  for word in "${COMP_WORDS[@]:2:COMP_CWORD-2}"; do
    [[ $word == -- ]] && options=
  done
  if [[ $command == scan ]]; then
    names=-d
    options+=${options:+ --apply --state --skip --min-size --max-depth --time-budget --json}
    options+=${options:+ --exclude --include --exclude-from --no-hidden --roots-from --null --max-size}
    options+=${options:+ --dry-run --config --idle --one-file-system --html --quiet --no-color}
    [[ -n $options ]] && _velmarin_value && return
  elif [[ $command == apply ]]; then
    options+=${options:+ --dry-run --state --time-budget --json --quiet}
    [[ -n $options ]] && _velmarin_value && return
  elif [[ $command == history ]]; then
    names=-d options=${options:+--state --json --help --version}
    [[ -n $options ]] && _velmarin_value && return
  fi
  if [[ -n $options && ${COMP_WORDS[COMP_CWORD]} == -* ]]; then
    _velmarin_offer -W "$options"
  else
    _velmarin_offer_names "$names"
  fi
}

complete -F _velmarin velmarin
