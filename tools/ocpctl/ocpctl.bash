# bash completion for ocpctl. Subcommands and options are read from ocpctl's
# own --help, and item and parameter names from `ocpctl list`, so the
# completion never drifts from the tool it completes.

# Words that may follow the command path "$@": kind "commands" gives the
# subcommands, kind "options" the options.
_ocpctl_help_words() {
    local kind=$1
    shift
    "$_ocpctl_program" "$@" --help 2>/dev/null | awk -v kind="$kind" '
        /^Subcommands:/ { in_commands = 1; next }
        /^[^ ]/ { in_commands = 0 }
        kind == "commands" && in_commands && /^  [a-z]/ { print $1 }
        kind == "options" && /^  -/ { n = split($1, names, ","); for (i = 1; i <= n; i++) print names[i] }'
}

_ocpctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local _ocpctl_program=${COMP_WORDS[0]}
    local path=() i word
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --bus | --timeout) ((i++)) ;;
            -*) ;;
            *) if _ocpctl_help_words commands "${path[@]}" | grep -qxF -- "$word"; then path+=("$word"); fi ;;
        esac
    done
    case $previous in
        --mode) mapfile -t COMPREPLY < <(compgen -W "torque speed position impedance" -- "$cur"); return ;;
        --trajectory) mapfile -t COMPREPLY < <(compgen -W "sine step" -- "$cur"); return ;;
        --format) mapfile -t COMPREPLY < <(compgen -W "csv jsonl" -- "$cur"); return ;;
        --command) mapfile -t COMPREPLY < <(compgen -W "position setpoint torque speed impedance" -- "$cur"); return ;;
        --can) mapfile -t COMPREPLY < <(compgen -W "classic:500k classic:1M fd:1M/2M fd:1M/5M fd:1M/8M" -- "$cur"); return ;;
        --bus) mapfile -t COMPREPLY < <(compgen -W "sim" -- "$cur"); return ;;
        --out | --plot) mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return ;;
        --items)
            # One name of a comma-separated list at a time.
            local done_part=${cur%"${cur##*,}"}
            mapfile -t COMPREPLY < <(compgen -P "$done_part" -W \
                "$("$_ocpctl_program" list items 2>/dev/null | awk 'NR > 1 { print $2 }')" -- "${cur##*,}")
            return ;;
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_ocpctl_help_words options "${path[@]}")" -- "$cur")
    elif [[ ${path[*]} == "params get" ]]; then
        mapfile -t COMPREPLY < <(compgen -W \
            "$("$_ocpctl_program" list params 2>/dev/null | awk 'NR > 1 { print $2 }')" -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$(_ocpctl_help_words commands "${path[@]}")" -- "$cur")
    fi
}

complete -F _ocpctl ocpctl
