# Completion of ryx-web for bash. The words come from the program's own help.

_ryx_web ()
{
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}

  case $previous in
    --module-dir) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
    --tls-cert | --tls-key | --token-file) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$(ryx-web --help 2>/dev/null | grep -o -- '--[a-z0-9-]*')" -- "$current")
}

complete -F _ryx_web ryx-web
