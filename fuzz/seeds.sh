#!/usr/bin/env bash
# seeds.sh - writes the inputs that the fuzz targets of the upgrade images start from to fuzz/corpus.
# The images are those of mkfs.cramfs (util-linux); the results are kept in the tree.
set -euo pipefail
cd "$(dirname "$0")"
export PATH=$PATH:/usr/sbin:/sbin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

readonly v1='Kernel, 0, 0x00200000, 0x00300000, R
romfs, 1, 0x00500000, 0x00800000, RW
END
'
readonly v3='# name, cs, offset, size, mask_flags, fs_flags, fs_type, fs_mountcmd, backup offset
"Kernel", 0, 0x00200000, 0x00300000, R, , , , 0x01200000
romfs, 0, 0x00500000, 0x00800000, R, R, squashfs, \
    "mount -t squashfs -o ro,noatime", 0x01500000
config, 0, 0x00D00000, 0x00100000, RW, RW, ubi, mount, 0xFFFFFFFFFFFFFFFF
partition, 0, 0x00100000, 0x00010000, R, R, cramfs, , 0x01100000
'

mkdir -p corpus/description corpus/cramfs
# The first byte chooses the version.
{ printf '\000'; printf '%s' "$v1"; } >corpus/description/version1
printf '\1%s' "$v3" >corpus/description/version2
printf '\2%s' "${v3//$'\n'/$'\r\n'}" >corpus/description/version3-crlf

image() { # image NAME OPTIONS...
    mkfs.cramfs "${@:2}" "$work" "corpus/cramfs/$1"
}
printf '%s' "$v1" >"$work/partition.txt"
image version1
for ((i = 0; i < 60; ++i)); do printf '%s' "$v3"; done >"$work/partitionV3.txt" # several blocks
head -c 6000 /dev/zero >"$work/partitionV2.txt"
image several
image padded-with-holes -p -z
