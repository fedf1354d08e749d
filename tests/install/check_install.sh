#!/usr/bin/env bash
# Installs a build into a temporary prefix and uses it the way a client would: the examples
# installed under share/ and README's code blocks built against it with only
# CMAKE_PREFIX_PATH, programs started without any loader variable, and the pkg-config file
# compiled against.
#   tests/install/check_install.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:?usage: check_install.sh BUILD_DIR}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi

cmake --install "$build" --prefix "$prefix" >/dev/null

mkdir -p "$work/readme"
awk -f "$here/readme_snippets.awk" "$root/README.md" >"$work/readme/readme_snippets.cpp"
cp "$here/readme_program.cmake" "$work/readme/CMakeLists.txt"

examples=$prefix/share/orvosdk-codecs/examples
[ -f "$examples/CMakeLists.txt" ] || { echo "examples not installed under $examples"; exit 1; }
for project in "$examples" "$work/readme"; do
  out=$work/build-$(basename "$project")
  cmake -S "$project" -B "$out" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release "${launcher[@]}" >/dev/null
  cmake --build "$out" -j "${JOBS:-2}" >/dev/null
done

# Started with no loader variable: the run paths must find every library.
(cd "$work" && env -u LD_LIBRARY_PATH "$work/build-examples/yuv_info" >/dev/null)
(cd "$work" && env -u LD_LIBRARY_PATH "$work/build-readme/readme_snippets")

export PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name orvosdk-codecs.pc)")
flags=$(pkg-config --cflags --libs orvosdk-codecs)
libdir=$(pkg-config --variable=libdir orvosdk-codecs)
printf '#include <orvo/orvo.h>\nint main() { orvo::LogManager::instance().silence(); return Decoder().isInitialized(); }\n' \
  >"$work/pc_program.cpp"
# shellcheck disable=SC2086  # the flags are words
"${CXX:-c++}" -std=c++17 "$work/pc_program.cpp" -o "$work/pc_program" $flags -Wl,-rpath,"$libdir"
env -u LD_LIBRARY_PATH "$work/pc_program"
echo "install check passed: $prefix (pkg-config: $flags)"
