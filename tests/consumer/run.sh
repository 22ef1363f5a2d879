#!/usr/bin/env bash
# usage: run.sh MODE BUILD_TREE SCRATCH, with CXX and CXXFLAGS as in the build tree
#
# Builds the host of the README against Quillmere as another project would, and runs it. MODE is
#   find_package   against an install of BUILD_TREE, through CMake
#   pkg_config     against an install of BUILD_TREE, through pkg-config
#   subdirectory   with the source tree as part of the project, as a shared library, which must offer what
#                  symbols.txt lists and nothing else
set -euo pipefail
mode=$1 build_tree=$2 scratch=$3
here=$(cd "$(dirname "$0")" && pwd)
source_tree=$(cd "$here/../.." && pwd)

rm -rf "$scratch"
mkdir -p "$scratch"
# The first C++ block of the README is a whole host.
awk '/^```cpp$/ {inside = 1; next} /^```$/ {if (inside) exit} inside' \
  "$source_tree/README.md" > "$scratch/host.cpp"
test -s "$scratch/host.cpp"

configure() {
  cmake -G Ninja -S "$here" -B "$scratch/build" -DHOST="$scratch/host.cpp" \
    -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="${CXXFLAGS:-}" "$@"
  cmake --build "$scratch/build"
}

case $mode in
  find_package)
    cmake --install "$build_tree" --prefix "$scratch/prefix"
    configure -DCMAKE_PREFIX_PATH="$scratch/prefix"
    ;;
  pkg_config)
    cmake --install "$build_tree" --prefix "$scratch/prefix"
    mkdir "$scratch/build"
    pc=$(find "$scratch/prefix" -name quillmere.pc)
    flags=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs quillmere)
    # shellcheck disable=SC2086
    "$CXX" -std=c++20 ${CXXFLAGS:-} "$scratch/host.cpp" $flags -o "$scratch/build/consumer"
    ;;
  subdirectory)
    configure -DQUILLMERE_SOURCE="$source_tree" -DBUILD_SHARED_LIBS=ON \
      -DCMAKE_CXX_COMPILER_LAUNCHER="$(command -v ccache || true)"
    if ! "$here/symbols.sh" "$scratch/build/quillmere/quillmere/libquillmere.so" |
      diff -u "$here/symbols.txt" -; then
      echo "The library's symbols have changed. Where that is meant, write symbols.txt anew by symbols.sh."
      exit 1
    fi
    ;;
esac

output=$("$scratch/build/consumer" "$here/calendar.ics")
echo "$output"
test "$output" = "Packaging, tested"
