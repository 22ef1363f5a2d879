#!/bin/sh
# usage: evolution_session.sh PROGRAM ARGUMENT...
#
# Runs a program in a session that has Evolution Data Server and nothing else, with a home of its own.
# The session's processes end with its bus.
set -eu
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
mkdir -m 700 "$home/run"
env -u DISPLAY -u WAYLAND_DISPLAY HOME="$home" XDG_RUNTIME_DIR="$home/run" \
  XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" XDG_CACHE_HOME="$home/cache" \
  GSETTINGS_BACKEND=memory GIO_USE_VFS=local QUILLMERE_TEST_EVOLUTION=1 \
  dbus-run-session -- "$@"
