# Completion of zelctl(1) for bash; what there is to offer zelctl knows itself.

_zelctl() {
    local word line words=() begun=
    # Bash takes words apart at "=" and ":".
    for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
        if [ ${#words[@]} -gt 0 ] && [[ $begun || $word == [=:]* ]]; then
            words[-1]+=$word
        else
            words+=("$word")
        fi
        [[ $word == [=:] ]] && begun=1 || begun=
    done
    word=${words[-1]}
    COMPREPLY=()
    while IFS= read -r line; do
        if [[ $line == $'\t'* ]]; then
            compopt -o default
            return
        fi
        line=${line%%$'\t'*}
        COMPREPLY+=("${line#"${word%"${word##*[=:]}"}"}")
    done < <("${1/#\~/$HOME}" --complete "${words[@]}" 2> /dev/null)
}
complete -F _zelctl zelctl
