# bash completion for quillwick(8)                                        -*- shell-script -*-

# The daemon takes one action per request, and -g with its value only at the end.
_quillwick() {
    local current=${COMP_WORDS[COMP_CWORD]} words=''
    COMPREPLY=()
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    -g) words='1000 10000 100000 1000000' ;;
    -l) words='-g' ;;
    *) ((COMP_CWORD > 1)) || words='-h --clear -p -f -l -g' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _quillwick quillwick
