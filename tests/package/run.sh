#!/usr/bin/env bash
# run.sh BUILD - installs BUILD, moves the installation, builds other people's programs against it with
# CMake and with pkg-config, and runs them on boards with the installed qelboard.
set -euo pipefail
build=$(realpath "$1")
here=$(dirname "$(realpath "$0")")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
package=$scratch/moved

cmake --install "$build" --prefix "$scratch/installed" >/dev/null
mv "$scratch/installed" "$package"

for file in lib/libqel.so.1 lib/libosa.so.1 lib/libbnd.so.1 lib/libxcc.so.1 lib/pkgconfig/qel.pc \
    lib/cmake/qel/qelConfig.cmake include/qel/qel.h include/qel/platform/osa.h bin/qelctl bin/qelboard \
    share/qel/boards/dome.toml share/man/man1/qelctl.1 share/bash-completion/completions/qelctl \
    share/zsh/site-functions/_qelctl; do
    [[ -e $package/$file ]] || { echo "not installed: $file"; exit 1; }
done
if grep -rIl "$build\|$scratch/installed" "$package"; then
    echo "these name the folder they were made in"
    exit 1
fi
soname=$(objdump -p "$package/lib/libqel.so.1" | awk '$1 == "SONAME" { print $2 }')
[[ $soname == libqel.so.1 ]] || { echo "SONAME is $soname"; exit 1; }

cmake -G Ninja -S "$here/consumer" -B "$scratch/cmake" -DCMAKE_PREFIX_PATH="$package" >/dev/null
ninja -C "$scratch/cmake" >/dev/null

# Only the package counts, whatever else the machine has installed.
export PKG_CONFIG_LIBDIR=$package/lib/pkgconfig
read -r -a flags < <(pkg-config --cflags qel)
read -r -a libs < <(pkg-config --libs qel)
mkdir "$scratch/plain"
rpath=("-Wl,--no-as-needed" "-Wl,-rpath,$package/lib")
gcc -std=c99 -Wall -Werror "${flags[@]}" "$here/consumer/consumer.c" -o "$scratch/plain/qel-first" \
    "${rpath[@]}" "${libs[@]}" -lxcc
gcc -std=c99 -Wall -Werror "${flags[@]}" "$here/consumer/consumer.c" -o "$scratch/plain/xcc-first" \
    "${rpath[@]}" "${libs[0]}" -lxcc "${libs[@]}"

on_board() { timeout 60 "$package/bin/qelboard" run "$1" --as vesta -- "${@:2}"; }
for program in "$scratch"/{cmake,plain}/{qel-first,xcc-first}; do
    on_board dome "$program" 1
    on_board twin "$program" 2
done
on_board dome "$scratch/cmake/from-cpp"
on_board dome "$package/bin/qelctl" info >/dev/null
OSA_LOG=error timeout 60 "$package/bin/qelboard" run dome --fault "step QEL_comInit fail" -- \
    "$package/bin/qelctl" version 2>&1 >/dev/null | grep -q "QEL_comInit execute Error"
