#!/usr/bin/env bash
# Checks that the shared libraries export CTrdCompData whole (every codec
# member declared in TrdCompMembers.inc), the functions of the modern
# interface that live in the library, and the eight NCH_* functions.
set -euo pipefail
lib=$1 kxpfdk=$2 members=$3
exported=$(nm -DC --defined-only "$lib")
missing=0
count=0
while read -r name; do
  count=$((count + 1))
  if ! grep -q "CTrdCompData::$name(" <<<"$exported"; then echo "not exported: $name"; missing=$((missing + 1)); fi
done < <(grep -o '^static int [A-Za-z0-9_]*' "$members" | cut -d' ' -f3)
for fn in PackReq2008 RestoreReq2008 PackAns2008 RestoreAns2008 ReleaseAnsData; do
  grep -q "CTrdCompData::$fn(" <<<"$exported" || { echo "not exported: $fn"; missing=$((missing + 1)); }
done
for fn in "trdcomp::Version()" "trdcomp::CatalogueHash()" "trdcomp::RequestSizeBound(" "trdcomp::AnswerSizeBound("; do
  grep -qF " $fn" <<<"$exported" || { echo "not exported: $fn"; missing=$((missing + 1)); }
done
nch=$(nm -DC --defined-only "$kxpfdk" | grep -c 'CKXNetCompressHelper::NCH_' || true)
[ "$nch" -eq 8 ] || { echo "KXPfdk exports $nch NCH_ functions, not 8"; missing=$((missing + 1)); }
echo "$count codec members checked, $missing missing"
[ "$missing" -eq 0 ]
