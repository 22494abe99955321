#!/usr/bin/env bash
# That each of the given files was built so that a fault in it is hard to make use of.
set -euo pipefail

for file in "$@"; do
  facts=$(readelf --wide --file-header --program-headers --dynamic --dyn-syms "$file")
  while IFS=: read -r what pattern; do
    grep -qE "$pattern" <<<"$facts" || {
      echo "${file##*/}: no $what" >&2
      exit 1
    }
  done <<'END'
position independence:Type: +DYN
read-only relocations:GNU_RELRO
binding at start:FLAGS.*NOW
stack without execution:GNU_STACK.* RW +0x
stack protector:__stack_chk_fail
checked library calls:__[a-z]+_chk@
END
done
