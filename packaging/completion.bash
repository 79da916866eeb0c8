# Completes zeptfem and zepctl in bash. Commands, options and names come from the programs' help, so none is missing.

_zeptfem_options() { sed -nE 's/^  (-[^ ,]+),? ?(--[^ ]+)?( .*)?$/\1 \2/p' <<<"$1"; }
# The value that option $2 takes, as in "-d,--dir DIR"
_zeptfem_value() { [[ ! $2 =~ ^-[-a-z_A-Z]+$ ]] || sed -nE "s/^  ([^ ]+, ?)?$2(, ?[^ ]+)? ([A-Z]+|arg)([ =].*)?$/\3/p" <<<"$1"; }
_zeptfem_names() { sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p; s/^.*\{([a-z,]+)\}.*$/\1/p' <<<"$1" | tr ',' ' '; }

# Called by bash: _zeptfem PROGRAM WORD PREVIOUS
_zeptfem() {
    local all help names value='' word path=() wants=command
    COMPREPLY=()
    help=$("$1" --help 2>/dev/null)
    all=$help
    names=$(_zeptfem_names "$help")
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [ -n "$value" ]; then
            value=  # this word is the value
        elif [[ $word == -* ]]; then
            value=$(_zeptfem_value "$all" "$word")
        elif [ "$word" = help ]; then
            wants=help
        elif [ "$wants ${path[*]}" = 'command run' ]; then
            wants='file'  # an argument of the command that run starts
        elif grep -qxF -e "$word" <<<"$names"; then
            path+=("$word")
            help=$("$1" "${path[@]}" --help 2>/dev/null)
            all+=$'\n'$help
            names=$(_zeptfem_names "$help")
        fi
    done
    if [ $wants = file ]; then
        compopt -o bashdefault -o default
    elif [ -z "$value" ] && [ "$wants ${path[*]}" = 'command run' ]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_zeptfem_options "$all")" -c -- "$2")
    elif [ -z "$value" ] && [[ $2 == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_zeptfem_options "$all")" -- "$2")
    elif [ -z "$value" ] && [ -n "$names" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$names" -- "$2")
    elif [[ $value =~ ^(PATH|DIR|TSIIDX|arg)$ ]] || { [ -z "$value" ] && grep -qE '^  (FILE|DIR) ' <<<"$help"; }; then
        compopt -o bashdefault -o default
    fi
}

complete -F _zeptfem zeptfem zepctl
