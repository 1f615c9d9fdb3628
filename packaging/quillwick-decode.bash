# bash completion for quillwick-decode(1)                                 -*- shell-script -*-

_quillwick_decode() {
    local current=${COMP_WORDS[COMP_CWORD]}
    COMPREPLY=()
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '--damage --utc --help' -- "$current")
    else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    fi
}
complete -F _quillwick_decode quillwick-decode
