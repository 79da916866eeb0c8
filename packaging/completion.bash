# Completes zeptfem and zepctl in bash. Commands, options and names come from the programs' help, so none is missing.

_zeptfem_options() { sed -nE 's/^  (-[^ ,]+),? ?(--[^ ]+)?( .*)?$/\1 \2/p' <<<"$1"; }
_zeptfem_names() { sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p; s/^.*\{([a-z,]+)\}.*$/\1/p' <<<"$1" | tr ',' ' '; }

# Called by bash: _zeptfem PROGRAM WORD PREVIOUS
_zeptfem() {
    local help options names word path=()
    COMPREPLY=()
    help=$("$1" --help 2>/dev/null)
    options=$(_zeptfem_options "$help")
    names=$(_zeptfem_names "$help")
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [ "${path[*]}" != run ] && grep -qxF -e "$word" <<<"$names"; then
            path+=("$word")
            help=$("$1" "${path[@]}" --help 2>/dev/null)
            options+=" $(_zeptfem_options "$help")"
            names=$(_zeptfem_names "$help")
        fi
    done
    if [ "${path[*]}" = run ] && [ "$3" != run ]; then
        return  # a file, also as the argument of an option or of the command
    elif [ "$3" = run ]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -c -- "$2")
    elif [[ $2 == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$2")
    elif [[ $3 != -* ]]; then  # an option may take a file
        [[ $COMP_CWORD -gt 1 || -z $names ]] || names+=" help"
        mapfile -t COMPREPLY < <(compgen -W "$names" -- "$2")
    fi
}

complete -o bashdefault -o default -F _zeptfem zeptfem zepctl
