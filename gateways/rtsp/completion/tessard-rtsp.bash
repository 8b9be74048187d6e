# SPDX-License-Identifier: MIT
# shellcheck shell=bash
# Completion for tessard-rtsp in bash.

_tessard_rtsp() {
  local current=$2 previous=$3
  local options=(--event --event-topic --event-content --analytics --ptz --pantilt-space --zoom-space --socket --port
    --address --channels --video --no-video --gzip --users --no-authentication --certificate --key --multicast --ttl
    --version --help)

  COMPREPLY=()
  case $previous in
  --socket | --users | --certificate | --key)
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    ;;
  --analytics | --pantilt-space | --zoom-space) mapfile -t COMPREPLY < <(compgen -W "0 1 2" -- "$current") ;;
  --ptz) mapfile -t COMPREPLY < <(compgen -W "0 1 2 3" -- "$current") ;;
  --event-topic | --event-content | --port | --address | --channels | --video | --multicast | --ttl) ;;
  *) mapfile -t COMPREPLY < <(compgen -W "${options[*]}" -- "$current") ;;
  esac
}

complete -F _tessard_rtsp tessard-rtsp
