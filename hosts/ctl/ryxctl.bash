# Completion of ryxctl for bash. The words come from the program's own help.

_ryxctl ()
{
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} command='' word before=''

  # A display's name comes in several words: colons part words here.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $before$word in
      --module-dir?*) ;;
      [a-z]*) command=$word; break ;;
    esac
    before=''
    [[ $word != --module-dir && $word != --display && $word != = ]] || before=--module-dir
  done

  case $previous in
    --module-dir) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
    --png | --y4m) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
  esac

  local words
  if [[ $current == -* ]]; then
    words=$(ryxctl $command --help-all 2>/dev/null | grep -o -- '--[a-z0-9-]*')
  elif [[ -z $command || $command == "$current" ]]; then
    words=$(ryxctl --help 2>/dev/null | sed -n '/^Commands:/,/^$/s/^  \([a-z]*\) .*/\1/p')
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _ryxctl ryxctl
