# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Completion for tessard-mqtt in bash.

_tessard_mqtt() {
  local current=$2 previous=$3

  COMPREPLY=()
  case $previous in
  --socket | --config)
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    ;;
  *) mapfile -t COMPREPLY < <(compgen -W "--socket --config --check-config --version --help" -- "$current") ;;
  esac
}

complete -F _tessard_mqtt tessard-mqtt
