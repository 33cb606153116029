# bash completion for tarnisctl.
#
# Everything offered is read from the tool being completed, so a new command or
# option needs no edit here: command names from "tarnisctl --help", a command's
# options and keywords from its usage line ("tarnisctl CMD --help"), and the
# module names after "dump" from the daemon on the root the line names (else
# $TARNIS_ROOT). Modules come from "dump ModuleManager dump", which only lists
# them: a plain dump would run every module's dump, and some of those report
# or do work. With no daemon there, nothing is offered.

# The tool on the root of the line being completed; a daemon that does not
# answer costs two seconds at most.
_tarnisctl_ask() {
  "$_tarnisctl_tool" "${_tarnisctl_root[@]}" --timeout 2 "$@" 2>/dev/null
}

_tarnisctl_modules() {
  _tarnisctl_ask dump ModuleManager dump | sed -n 's/^\([^[:space:]]\{1,\}\)\t\t\(Running\|Stopped\)$/\1/p'
}

_tarnisctl() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
  local _tarnisctl_tool=${COMP_WORDS[0]/#\~/$HOME}
  local -a _tarnisctl_root=()
  COMPREPLY=()

  # The global options before the command, and the command itself.
  local i=1 command="" word
  while ((i < COMP_CWORD)); do
    word=${COMP_WORDS[i]}
    case $word in
      --root | --timeout)
        # "--root=DIR" reaches us as "--root" "=" "DIR" (= breaks words).
        [[ ${COMP_WORDS[i+1]} == "=" ]] && ((i++))
        [[ $word == --root ]] && _tarnisctl_root=(--root "${COMP_WORDS[i+1]/#\~/$HOME}")
        ((i += 2))
        continue
        ;;
      --root=*) _tarnisctl_root=(--root "${word#--root=}") ;;
      -*) ;;
      *)
        command=$word
        break
        ;;
    esac
    ((i++))
  done

  if [[ -z $command ]]; then
    [[ $cur == "=" ]] && cur=""
    case $prev in
      --root | =)
        if [[ $prev == --root || ${COMP_WORDS[COMP_CWORD-2]} == --root ]]; then
          mapfile -t COMPREPLY < <(compgen -d -- "$cur")
          return
        fi
        ;;
      --timeout) return ;;
    esac
    local words
    if [[ $cur == -* ]]; then
      words="--root --timeout --help --version"
    else
      words=$("$_tarnisctl_tool" --help 2>/dev/null | sed -n 's/^  \([a-z][a-z0-9-]*\).*/\1/p')
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
    return
  fi

  # The command's usage line: its options, and the keywords (a|b|c) it takes
  # in a given place among its other arguments.
  local usage
  usage=$("$_tarnisctl_tool" "$command" --help 2>/dev/null | head -n 1)
  [[ $usage == "usage: "* ]] || return
  usage=${usage#*"] $command"}
  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "--help $(grep -o -- '--[a-z][a-z0-9-]*' <<<"$usage")" -- "$cur")
    return
  fi
  local -a args=() places=()
  for word in "${COMP_WORDS[@]:i+1:COMP_CWORD-i-1}"; do
    [[ $word == -* ]] || args+=("$word")
  done
  for word in $usage; do
    [[ $word == \[-* || $word == -* ]] || places+=("$word")
  done

  if [[ $command == dump ]]; then
    case ${#args[@]}:${args[0]}:${args[1]} in
      0::) mapfile -t COMPREPLY < <(compgen -W "ModuleManager $(_tarnisctl_modules)" -- "$cur") ;;
      1:ModuleManager:) mapfile -t COMPREPLY < <(compgen -W "dump load" -- "$cur") ;;
      2:ModuleManager:load) mapfile -t COMPREPLY < <(compgen -W "$(_tarnisctl_modules)" -- "$cur") ;;
    esac
    return
  fi
  local place=${places[${#args[@]}]}
  place=${place//[\[\]]/}
  if [[ $place =~ ^[a-z]+(\|[a-z]+)+$ ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${place//|/ }" -- "$cur")
  fi
}

complete -F _tarnisctl tarnisctl
