#!/usr/bin/env bash
# armhf-sysroot.sh DIRECTORY - unpacks the armhf packages that a cross build needs into DIRECTORY.
#
# The machine's own package state is left alone: apt works on a state of its own with the machine's
# sources, nothing is installed, and no foreign architecture is added (that ties the versions of the
# machine's own libraries to the mirror of the day). Works as an ordinary user.
set -euo pipefail

readonly packages=(
    libc6 libc6-dev linux-libc-dev libgcc-s1 libstdc++6 libcrypt1 libcrypt-dev zlib1g zlib1g-dev libgtest-dev
    nlohmann-json3-dev libcli11-dev libtomlplusplus-dev libtomlplusplus3
)
[[ $# -eq 1 ]] || { echo "usage: $0 DIRECTORY" >&2; exit 2; }
readonly root=$1
readonly mark=$root/.packages
if [[ -f $mark && $(<"$mark") == "${packages[*]}" ]]; then exit 0; fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{state/lists/partial,cache/archives/partial,debs}
: >"$work/state/status"
apt() {
    apt-get -q -o Acquire::Retries=3 -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User= \
        -o Dir::State="$work/state" -o Dir::State::status="$work/state/status" -o Dir::Cache="$work/cache" \
        -o APT::Update::Post-Invoke::= -o APT::Update::Post-Invoke-Success::= "$@"
}

# A source whose index is out of step with its mirror is left out; the download tells whether that matters.
apt update || echo "some package sources could not be read" >&2
(cd "$work/debs" && apt download "${packages[@]}")

rm -rf "$root"
mkdir -p "$root"
for deb in "$work"/debs/*.deb; do dpkg-deb -x "$deb" "$root"; done
# Absolute links would lead out of the root.
while IFS= read -r -d '' link; do
    ln -sfnr "$root$(readlink "$link")" "$link"
done < <(find "$root" -type l -lname '/*' -print0)
echo "${packages[*]}" >"$mark"
