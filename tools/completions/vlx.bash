# What can follow, "vlx" itself knows.
_vlx()
{
    local choices
    choices=$("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}") || compopt -o default
    mapfile -t COMPREPLY < <(compgen -W "$(cut -f1 <<< "$choices")" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _vlx vlx
