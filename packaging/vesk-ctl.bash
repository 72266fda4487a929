# bash completion for vesk-ctl. Commands and options are those that the program itself
# tells, so that nothing has to be kept in step here.

_vesk_ctl_commands() {
  vesk-ctl --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z]\{1,\}\) .*/\1/p'
}

_vesk_ctl_options() {
  { vesk-ctl --help; [ -z "$1" ] || vesk-ctl "$1" --help; } 2>/dev/null |
    grep -oE -- '(^| |,)(-[a-zA-Z]|--[a-z]+(-[a-z]+)*)\b' | tr -d ' ,' | sort -u
}

_vesk_ctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local word command='' place=0
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word == -* ]] && continue
    [[ -z $command ]] && command=$word && continue
    place=$((place + 1))
  done
  COMPREPLY=()
  if [[ $previous == -o || $previous == --output ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  elif [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_vesk_ctl_options "$command")" -- "$current")
  elif [[ -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_vesk_ctl_commands)" -- "$current")
  elif [[ $command == props && $place -gt 0 ]]; then
    mapfile -t COMPREPLY < <(
      compgen -W 'server-props servlet-mappings clustered-servers' -- "$current")
  elif [[ $command == check || $command == explain || $command == watch ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}

complete -o filenames -F _vesk_ctl vesk-ctl
