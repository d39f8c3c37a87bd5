# Completion of keelctl for bash; what there is to choose from tells complete-keelctl.sh.
_keelctl() {
    local cur words cword helper
    helper=$(dirname "${BASH_SOURCE[0]}")/../../keel/complete-keelctl.sh
    _get_comp_words_by_ref -n := cur words cword
    if [[ ${words[cword - 1]} == @(--socket|-o|--output|import) ]]; then
        compopt -o default
        return
    fi
    mapfile -t COMPREPLY < <("$helper" "${words[@]:0:cword + 1}" 2>/dev/null)
    if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *[.=] ]]; then
        compopt -o nospace
    fi
    # Only what follows the last of these is replaced on the line.
    COMPREPLY=("${COMPREPLY[@]#"${cur%"${cur##*[:=]}"}"}")
} && complete -F _keelctl keelctl
