# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Completion for tessard-view in bash.

_tessard_view() {
  local current=$2 previous=$3
  local options=(--event --event-topic --event-content --analytics --ptz --pantilt-space --zoom-space --socket --bus
    --port --listen --channels --video --control --version --help)

  COMPREPLY=()
  case $previous in
  --socket | --listen)
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    ;;
  --analytics | --pantilt-space | --zoom-space) mapfile -t COMPREPLY < <(compgen -W "0 1 2" -- "$current") ;;
  --ptz) mapfile -t COMPREPLY < <(compgen -W "0 1 2 3" -- "$current") ;;
  --video) mapfile -t COMPREPLY < <(compgen -W test -- "$current") ;;
  --event-topic | --event-content | --bus | --port | --channels) ;;
  *) mapfile -t COMPREPLY < <(compgen -W "${options[*]}" -- "$current") ;;
  esac
}

complete -F _tessard_view tessard-view
