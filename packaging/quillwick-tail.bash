# bash completion for quillwick-tail(1)                                   -*- shell-script -*-

_quillwick_tail() {
    local current=${COMP_WORDS[COMP_CWORD]}
    local words='--cursor-file --follow --since --events --help'
    COMPREPLY=()
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    --cursor-file) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    --since) ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current") ;;
    esac
}
complete -F _quillwick_tail quillwick-tail
