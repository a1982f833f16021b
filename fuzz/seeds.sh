#!/usr/bin/env bash
# seeds.sh - writes the inputs that the fuzz targets of the upgrade images, of EEPROM chips and of the framed
# link start from to fuzz/corpus. The images are those of mkfs.cramfs (util-linux); the results are kept in the
# tree.
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

# EEPROM chips: the first byte chooses page size and capacity (fuzz/eefs_fuzz.cpp).
words() { # words NUMBER... - as little-endian 32-bit words
    local number format
    for number; do
        printf -v format '\\x%02x\\x%02x\\x%02x\\x%02x' $((number & 255)) $((number >> 8 & 255)) \
            $((number >> 16 & 255)) $((number >> 24 & 255))
        printf '%b' "$format"
    done
}
zeros() { head -c "$1" /dev/zero; }
eeprom_file() { # eeprom_file NAME BYTES ROOM
    words 0 1 "$2" 1700000000
    printf '%s' "$1"
    zeros $((40 - ${#1} + $3))
}
mkdir -p corpus/eefs
{
    printf '\201'
    words 0 0xDEEF5123 1 280 512 2 0 120 28 0 204 20
    zeros 72
    eeprom_file net.conf 12 28
    eeprom_file b 1 20
} >corpus/eefs/two-files
{
    printf '\201'
    zeros 128
    words 0 0xDEEF5123 1 196 444 1 0 120 20
    zeros 84
    eeprom_file a 4 20
} >corpus/eefs/second-place
{
    printf '\200'
    words 0 0xDEEF5123 1 0xFFFFFFFF 0x7FFFFFFF 8
    for ((i = 0; i < 8; ++i)); do words 0 $((120 + 60 * i)) 0xFFFF; done
    for ((i = 0; i < 8; ++i)); do eeprom_file "file$i" 60 4; done
} >corpus/eefs/contradictions

# Streams of the framed link: the first byte chooses the size of the pieces (fuzz/commlen_fuzz.cpp).
bytes() { # bytes HEX
    local at
    for ((at = 0; at < ${#1}; at += 2)); do printf '%b' "\\x${1:at:2}"; done
}
frame() { # frame NUMBER COMMAND PAYLOAD ERROR - the payload in hex, ERROR is added to the checksum
    local hex at
    local -i sum=0
    printf -v hex 'AA10%02X%02X%02X%s' "$1" $((${#3} / 2 + 2)) "$2" "$3"
    for ((at = 0; at < ${#hex}; at += 2)); do sum+=0x${hex:at:2}; done
    printf -v hex '%s%02X' "$hex" $((sum + ${4:-0} & 255))
    bytes "$hex"
}
zero_payload=$(printf '%0506d' 0) # 253 bytes
mkdir -p corpus/commlen
{ bytes 06; frame 0 0x21 ""; frame 1 0x30 010203; frame 2 0x31 "$zero_payload"; } >corpus/commlen/exchange
{ bytes FFAA10090802; printf abcde; frame 10 2 616263646566; } >corpus/commlen/lost-byte
{ bytes 14; frame 3 4 AA10010402696E98; bytes AA1000FF; frame 4 4 ""; } >corpus/commlen/nested
{ bytes 01AA100501; frame 6 6 78; } >corpus/commlen/short-length
{ bytes 00AAAA; frame 5 1 AA10; bytes AA; } >corpus/commlen/stray-marks
{ bytes 03; frame 9 2 616263 1; frame 10 2 616263; } >corpus/commlen/wrong-sum
