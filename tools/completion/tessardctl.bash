# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Completion for tessardctl in bash. Producers and their channels come from the bus; without a reply in time there are
# none. Text from the bus is only compared and quoted, never evaluated.

_TESSARDCTL_QUERY_SECONDS=2

_tessardctl_commands() {
  printf '%s\n' stream snapshot producers list show enable disable apply monitor status produce emit topics help
}

# The options of a command, or of tessardctl itself.
_tessardctl_options() {
  printf '%s\n' --help
  case $1 in
  '') printf '%s\n' --version ;;
  stream)
    printf '%s\n' --event --event-topic --event-content --analytics --ptz --pantilt-space --zoom-space --channel \
      --socket --count --timeout --sync --pretty --output
    ;;
  snapshot)
    printf '%s\n' --event --event-topic --event-content --analytics --ptz --pantilt-space --zoom-space --channel \
      --socket --timeout --input
    ;;
  producers | list) printf '%s\n' --json --names --channels --bus ;;
  show | enable | disable | apply | monitor) printf '%s\n' --bus ;;
  status) printf '%s\n' --json --metrics --bus ;;
  produce) printf '%s\n' --nice-name --channel --sample --strict --bus ;;
  emit) printf '%s\n' --property --operation --source --data --namespace --lines --bus ;;
  topics) printf '%s\n' --json --bus ;;
  esac
}

# Whether the word that follows this one is its value.
_tessardctl_takes_value() {
  case $1 in
  --event-topic | --event-content | --analytics | --ptz | --pantilt-space | --zoom-space | --channel | --socket | \
    --count | --timeout | --output | --input | --channels | --nice-name | --sample | \
    --operation | --source | --data | --namespace | --bus) return 0 ;;
  *) return 1 ;;
  esac
}

# Adds the lines on standard input that begin with $1 to the candidates.
_tessardctl_offer() {
  local candidate
  while IFS= read -r candidate; do
    if [[ $candidate == "$1"* ]]; then
      COMPREPLY+=("$(printf '%q' "$candidate")")
    fi
  done
}

_tessardctl_offer_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

_tessardctl() {
  local tool=$1 line=${COMP_LINE:0:COMP_POINT}
  local -a words=() bus=() given=()
  local current word command='' option='' index

  COMPREPLY=()
  # Bash splits words at colons, which addresses contain, so the words come from the line itself. Backslashes quote. The
  # x keeps an empty word, or a quoted blank, at the end.
  # shellcheck disable=SC2162
  read -a words <<<"${line}x"
  current=${words[-1]%x}
  for ((index = 1; index < ${#words[@]} - 1; index++)); do
    word=${words[index]}
    if [[ -n $option ]]; then
      if [[ $option == --bus ]]; then
        bus=(--bus "$word")
      fi
      option=''
    elif [[ $word == --bus=* ]]; then
      bus=(--bus "${word#--bus=}")
    elif _tessardctl_takes_value "$word"; then
      option=$word
    elif [[ $word != -* && -z $command ]]; then
      command=$word
    elif [[ $word != -* ]]; then
      given+=("$word")
    fi
  done

  if [[ -n $option ]]; then
    case $option in
    --socket | --output | --input | --sample) _tessardctl_offer_files "$current" ;;
    --channels) _tessardctl_offer "$current" < <(_tessardctl_query --names) ;;
    esac
  elif [[ $current == -* ]]; then
    _tessardctl_offer "$current" < <(_tessardctl_options "$command")
  else
    case $command/${#given[@]} in
    /0 | help/0) _tessardctl_offer "$current" < <(_tessardctl_commands) ;;
    show/0 | enable/0 | disable/0) _tessardctl_offer "$current" < <(_tessardctl_query --names) ;;
    enable/1 | disable/1) _tessardctl_offer "$current" < <(_tessardctl_query --channels "${given[0]}") ;;
    apply/0 | snapshot/0) _tessardctl_offer_files "$current" ;;
    esac
  fi
}

# Lists producers on the bus of the command line; uses the variables of _tessardctl.
_tessardctl_query() {
  timeout "$_TESSARDCTL_QUERY_SECONDS" "$tool" producers "${bus[@]}" "$@" </dev/null 2>/dev/null
}

complete -F _tessardctl tessardctl
