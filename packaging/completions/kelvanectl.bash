# SPDX-License-Identifier: Apache-2.0
# What bash completes of a kelvanectl command line.

_kelvanectl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' word options
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $command/$word in
      */-*) ;;
      /*) command=$word ;;
      state/get | state/set | state/unset | state/list) command="state $word" ;;
    esac
  done
  COMPREPLY=()
  case $previous in
    -u | --urgency)
      mapfile -t COMPREPLY < <(compgen -W '1 2 3 4' -- "$current")
      return
      ;;
    -t | --timeout | --token) return ;;
  esac
  case $command in
    '') options='purge cancel run-daily purgeable state --help --version' ;;
    purge) options='--urgency --timeout --token --single --yes --json --quiet --help' ;;
    cancel | run-daily) options='--quiet --help' ;;
    purgeable) options='--urgency --itemized --json --help' ;;
    state) options='get set unset list --help' ;;
    'state get' | 'state list') options='--json --help' ;;
    'state set') options='--string --help' ;;
    'state unset') options='--help' ;;
    *) return ;;
  esac
  case $command/$current in
    purge/-* | purgeable/-*) ;;
    purge/* | purgeable/*)
      # A mount point.
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
}

complete -F _kelvanectl kelvanectl
