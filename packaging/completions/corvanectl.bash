# bash completion for corvanectl

_corvanectl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local word command='' words=''
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $command/$word in
      /-*) ;;
      /*) command=$word ;;
      profile/set | profile/unset) command+=" $word" ;;
    esac
  done

  compopt -o filenames
  case $previous in
    --save) mapfile -t COMPREPLY < <(compgen -d -- "$current") && return ;;
    --store | --sign | --profile) mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
  esac

  case $command in
    '') words='images show notifications profile entitlements --version' ;;
    images) words='--json --xml --save --store' ;;
    show) words='--json --xml' ;;
    entitlements) words='--json --xml --sign' ;;
    profile) words='set unset --profile' ;;
    'profile set') words='--profile --json' ;;
    'profile unset') words='--profile' ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words --help" -- "$current")
  case $command/$current in
    show/[!-]* | show/ | entitlements/[!-0-9]*)
      mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$current") ;;
  esac
}

complete -F _corvanectl corvanectl
