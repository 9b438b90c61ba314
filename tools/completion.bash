# Completion for qurn-report, qurn-inspect, qurn-guard and qurn-host. Which options there are, and which
# scenarios, is what the programs themselves tell.

_qurn() {
  local cur prev words cword
  _init_completion || return
  if [[ $prev == --scenario ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$("$1" --list 2>/dev/null | cut -d ' ' -f 1)" -- "$cur")
  elif [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_parse_help "$1")" -- "$cur")
    [[ ${COMPREPLY[0]-} != *= ]] || compopt -o nospace
  else
    [[ $1 != *qurn-inspect ]] || _pids
    [[ $1 != *qurn-guard ]] || mapfile -t COMPREPLY < <(compgen -c -- "$cur")
    local -a others=("${COMPREPLY[@]}")
    _filedir
    COMPREPLY+=("${others[@]}")
  fi
} && complete -F _qurn qurn-report qurn-inspect qurn-guard qurn-host
