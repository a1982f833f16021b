# shellcheck shell=bash
# packages.sh - the Debian packages behind each word of ./dev, installed when they are missing.

declare -rA packages=(
    [build]="g++ make cmake ninja-build pkg-config nlohmann-json3-dev libcli11-dev libtomlplusplus-dev zlib1g-dev"
    [test]="libgtest-dev u-boot-tools libubootenv-tool socat"
    [bench]="libbenchmark-dev libubootenv-dev"
    [clang]="clang-14 libclang-rt-14-dev"
    [lint]="clang-tidy-14 clang-format-14 shellcheck"
    [arm]="g++-arm-linux-gnueabihf qemu-user"
)

package_is_installed() {
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# need GROUP...: makes sure that the packages of these groups are there.
need() {
    local group package missing=()
    for group in "$@"; do
        for package in ${packages[$group]}; do package_is_installed "$package" || missing+=("$package"); done
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    command -v apt-get >/dev/null || fail "apt-get is missing: install these yourself: ${missing[*]}"
    echo "installing ${missing[*]}"
    mkdir -p build/log
    install_packages "${missing[@]}" >build/log/packages.log 2>&1 || {
        cat build/log/packages.log >&2
        fail "installing ${missing[*]} failed"
    }
}

install_packages() {
    local root=()
    [[ $(id -u) -eq 0 ]] || root=(sudo)
    # A source that cannot be read is left out; the installation tells whether that matters.
    "${root[@]}" apt-get -q -o Acquire::Retries=3 update || echo "some package sources could not be read"
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -q -y -o Acquire::Retries=3 install --no-install-recommends "$@" </dev/null
}
