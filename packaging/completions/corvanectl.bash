# bash completion for corvanectl

_corvanectl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local word command='' words=''
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $command/$word in
      /-*) ;;
      /*) command=$word ;;
      profile/set | profile/unset) command+=" $word" ;;
      ark/get | ark/set | ark/remove | ark/list | ark/attributes | ark/watch | ark/dump | ark/restore)
        command+=" $word" ;;
    esac
  done

  compopt -o filenames
  case $previous in
    --save) mapfile -t COMPREPLY < <(compgen -d -- "$current") && return ;;
    --store | --sign | --profile | --page) mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
  esac

  case $command in
    '') words='ping status device radio carrier ark images notifications entitlements show profile --version' ;;
    ping | device | radio) words='--json' ;;
    status) words='--json --openmetrics' ;;
    carrier) words='--json --xml' ;;
    ark) words='get set remove list attributes watch dump restore' ;;
    'ark get') words='--domain --json --xml' ;;
    'ark set' | 'ark list') words='--domain --json' ;;
    'ark remove' | 'ark dump' | 'ark restore') words='--domain' ;;
    'ark attributes') words='--domain --json --set --none' ;;
    'ark watch') words='--domain --json --count --timeout' ;;
    images) words='--json --xml --save --page --store' ;;
    notifications) words='--json --count --timeout' ;;
    show) words='--json --xml --binary' ;;
    entitlements) words='--json --xml --sign' ;;
    profile) words='set unset --profile' ;;
    'profile set') words='--profile --json' ;;
    'profile unset') words='--profile' ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words --help" -- "$current")
  case $command/$current in
    show/[!-]* | show/ | entitlements/[!-0-9]* | ark\ dump/[!-]* | ark\ dump/ | \
      ark\ restore/[!-]* | ark\ restore/)
      mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$current") ;;
  esac
}

complete -F _corvanectl corvanectl
