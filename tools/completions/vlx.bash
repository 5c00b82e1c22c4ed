# What can follow, "vlx" itself knows.
_vlx()
{
    local choices word
    choices=$("$1" --complete "${COMP_WORDS[@]:1:COMP_CWORD}") || compopt -o default
    COMPREPLY=()
    while IFS=$'\t' read -r word _; do
        [[ -n $word && $word == "${COMP_WORDS[COMP_CWORD]}"* ]] && COMPREPLY+=("$word")
    done <<< "$choices"
}
complete -F _vlx vlx
