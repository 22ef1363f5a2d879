#!/usr/bin/env bash
# usage: symbols.sh LIBRARY
#
# Lists what a shared library offers, sorted: functions and data, without the types' own tables and
# without what every library has of the standard library's templates and of lambdas.
set -euo pipefail
nm -D --defined-only "$1" | awk '{print $NF}' |
  grep -vE '^_Z(T|GV)|^_ZZ?N?K?S|^_ZZ?NK?(S|9__gnu_cxx)' | c++filt |
  grep -vF '{lambda' | LC_ALL=C sort -u
