# Completion of raclient in bash; installed as raclient in /usr/share/bash-completion/completions.

_raclient() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local options='-f -e -i -n -VELROOT -k -HARDEN --encode --json --table -- -h --help'
    local -a places=()   # HOST, PORT and WORDs in front of the cursor
    local at has_script= is_open=1

    COMPREPLY=()
    for ((at = 1; at < COMP_CWORD; at++)); do
        case $is_open${COMP_WORDS[at]} in
            1-f) has_script=1; ((at++)) ;;
            1-i | 1-n | 1-VELROOT | 1-k | 1--table) ((at++)) ;;
            1--) is_open= ;;
            1-*) ;;
            *) places+=("${COMP_WORDS[at]}"); ((${#places[@]} < 3)) || is_open= ;;
        esac
    done

    if [[ $is_open && $at -gt $COMP_CWORD ]]; then   # the value of an option
        case $previous in
            -f | -k) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
            -VELROOT) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
        esac
    elif [[ $is_open && $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    elif [[ ! $has_script || ${#places[@]} -lt 2 ]]; then
        case ${#places[@]} in
            0) mapfile -t COMPREPLY < <(compgen -A hostname -W '127.0.0.1 localhost' -- "$current") ;;
            2) mapfile -t COMPREPLY < <(compgen -W 'DB' -- "$current") ;;
            3) mapfile -t COMPREPLY < <(compgen -W 'A D G I L U' -- "$current") ;;
            7 | 8) [[ ${places[3]} == L ]] && mapfile -t COMPREPLY < <(compgen -W '+ -' -- "$current") ;;
        esac
    fi
}

complete -F _raclient raclient
