# bash completion for depottrie: subcommands, their options, trie names
# (the directories under the root that hold a trie's tables), files for load
# and diff. Needs nothing from the bash-completion package.

_depottrie_tries() {
  local root=${DEPOT_ROOT:-/dev/shm/depot} i
  for ((i = 1; i < ${#COMP_WORDS[@]} - 1; i++)); do
    [[ ${COMP_WORDS[i]} == --root ]] && root=${COMP_WORDS[i + 1]}
  done
  local table
  for table in "$root"/*/trieNode; do
    [[ -e $table ]] || continue
    table=${table%/trieNode}
    printf '%s\n' "${table##*/}"
  done
}

_depottrie() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local subcommands="load lookup list next stats check drop watch diff batch bench"
  local sub="" i
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --root | --trace) ((i++)) ;;
      -*) ;;
      *) sub=${COMP_WORDS[i]}; break ;;
    esac
  done

  local IFS=$'\n'
  case $prev in
    --root) COMPREPLY=($(compgen -d -- "$cur")); return ;;
    --trace) COMPREPLY=($(compgen -W "DepotTrie/0-9" -- "$cur")); return ;;
    --name | -n) COMPREPLY=($(compgen -W "$(_depottrie_tries)" -- "$cur")); return ;;
    --family) COMPREPLY=($(compgen -W "4 6" -- "$cur")); return ;;
    --mode) COMPREPLY=($(compgen -W "0644 0640 0600" -- "$cur")); return ;;
    --under | --count | --seed) return ;;
  esac
  IFS=$' \t\n'

  local options
  case $sub in
    "") COMPREPLY=($(compgen -W "--root --trace --version --help $subcommands" -- "$cur")); return ;;
    load) options="--name --mode --feed-entries --help" ;;
    lookup | next) options="--name --json --help" ;;
    list) options="--name --under --family --json --help" ;;
    stats | check) options="--name --json --help" ;;
    drop) options="--name --help" ;;
    watch) options="--name --after --count --seconds --help" ;;
    diff) options="--name --help" ;;
    batch) options="--name --local --read-only --mode --help" ;;
    bench) options="--name --count --seed --help" ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$options" -- "$cur"))
  elif [[ $sub == load || $sub == diff ]]; then
    local IFS=$'\n'
    COMPREPLY=($(compgen -f -- "$cur"))
    compopt -o filenames 2>/dev/null
  fi
}

complete -F _depottrie depottrie
