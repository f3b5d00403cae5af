#!/bin/sh
# Builds seed inputs for fuzz_timelog from the real time logs of the corpus (every TLGnnnnn.XML
# with its binary, in any letter case) into a folder outside the repository.
# usage: fuzz/make_seeds.sh OUT_DIR [CORPUS_DIR]
#   CORPUS_DIR defaults to $KTD_CORPUS_DIR, then to ../shared/corpus beside the repository.
# Seed layout (what the harness reads): flags byte, header length (2 bytes, little-endian),
# header XML, record bytes. Each time log gives a memory seed with its first 4 KiB of records
# and a seed read through files with the declared length; logs under 32 KiB are taken whole.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/.." && pwd)
out=${1:?usage: make_seeds.sh OUT_DIR [CORPUS_DIR]}
corpus=${2:-${KTD_CORPUS_DIR:-$repo/../shared/corpus}}
[ -d "$corpus" ] || { echo "make_seeds.sh: no corpus at $corpus" >&2; exit 2; }

mkdir -p "$out"
out=$(cd "$out" && pwd)
case "$out/" in
"$repo"/*) echo "make_seeds.sh: $out is inside the repository; choose a folder outside it" >&2; exit 2 ;;
esac

# One byte as printf understands it (octal escape).
byte() { printf "\\$(printf '%03o' "$1")"; }

# seed NAME FLAGS HEADER BINARY MAX_BINARY_BYTES
seed() {
    len=$(wc -c < "$3")
    if [ "$len" -gt 65535 ]; then return 0; fi
    {
        byte "$2"
        byte $((len % 256))
        byte $((len / 256))
        cat "$3"
        head -c "$5" "$4"
    } > "$out/$1"
}

count=0
for header in "$corpus"/*/[Tt][Ll][Gg]*.[Xx][Mm][Ll]; do
    [ -f "$header" ] || continue
    base=${header%.*}
    binary=
    for ext in bin BIN Bin bIn biN BIn bIN BiN; do
        if [ -f "$base.$ext" ]; then binary="$base.$ext"; break; fi
    done
    [ -n "$binary" ] || continue
    set_name=$(basename "$(dirname "$header")")
    name="$set_name-$(basename "$base")"
    size=$(wc -c < "$binary")
    seed "$name-mem-4k" 0 "$header" "$binary" 4096
    if [ "$size" -le 32768 ]; then
        seed "$name-mem-whole" 0 "$header" "$binary" "$size"
        seed "$name-files-declared" 3 "$header" "$binary" "$size"
    else
        seed "$name-files-4k" 1 "$header" "$binary" 4096
    fi
    count=$((count + 1))
done

# Every field a record can carry, with two records of distinct values.
all="$out/.all-fields.xml"
printf '<TIM A="" D="4"><PTN A="" B="" C="" D="" E="" F="" G="" H="" I=""/><DLV A="DFFE" B="" C="DET-1" D="65280" E="0" F="7"/><DLV A="0001" B="" C="DET-1"/></TIM>' > "$all"
recs="$out/.all-fields.bin"
{
    for r in 1 2; do
        byte 0; byte 16; byte 200; byte $r         # time
        byte 92; byte 40                            # date
        byte 1; byte 2; byte 3; byte $r             # north
        byte 4; byte 5; byte 6; byte 7              # east
        byte 8; byte 9; byte 10; byte 255           # up
        byte 1                                      # status
        byte 12; byte 0; byte 9; byte 0             # PDOP, HDOP
        byte 11                                     # satellites
        byte 0; byte 1; byte 2; byte 3; byte 4; byte 5 # GPS time and date
        byte 2; byte 0; byte 1; byte 0; byte 0; byte 0; byte 1; byte 255; byte 255; byte 255; byte 255
    done
} > "$recs"
seed "synthetic-all-fields" 0 "$all" "$recs" 4096
seed "synthetic-all-fields-files" 9 "$all" "$recs" 4096
rm -f "$all" "$recs"

echo "make_seeds.sh: seeds of $count time logs in $out"
