#!/usr/bin/env bash
# The tool on the sample data through the real plugin: a copy, a second copy that appends,
# the values read back (decimals exactly), a third that replaces, and a bad CSV that leaves
# no farm behind.
set -euo pipefail
qopci=$1 examples=$2
farm=$(mktemp -d)/farm
trap 'rm -rf "$(dirname "$farm")"' EXIT
"$qopci" copy --farm "$farm" --manifest "$examples/trades.json" --csv "$examples/trades.csv" >/dev/null
"$qopci" copy --farm "$farm" --manifest "$examples/trades.json" --csv "$examples/trades.csv" >/dev/null
out=$("$qopci" inspect --farm "$farm" --column trades.row_no --limit 3)
grep -Eq 'trades\.row_no +rowid +6000 ' <<<"$out" || { echo "expected 6000 row ids: $out"; exit 1; }
grep -q 'trades.row_no: 1, 2, 3' <<<"$out" || { echo "expected row ids 1, 2, 3: $out"; exit 1; }
out=$("$qopci" inspect --farm "$farm" --column price --limit 2)
grep -Eq 'trades\.price +decimal\(9,2\) +6000 +4 ' <<<"$out" || { echo "expected int decimals: $out"; exit 1; }
grep -q 'trades.price: 201.49, 40.19, ...' <<<"$out" || { echo "expected exact prices: $out"; exit 1; }
out=$("$qopci" inspect --farm "$farm" --column symbol --limit 2)
grep -q 'trades.symbol: "CRUX", "DYNA", ...' <<<"$out" || { echo "expected symbols: $out"; exit 1; }
"$qopci" copy --farm "$farm" --manifest "$examples/trades.json" --csv "$examples/trades.csv" \
  --replace | grep -Eq '^trades\.price +decimal\(9,2\) +replaced +3000 ' || { echo "--replace failed"; exit 1; }
bad=$(dirname "$farm")/bad.csv
printf 'id,symbol,qty,price,fee,ts\n1,AB,2,x,1.5,2013-01-01 00:00:00\n' >"$bad"
if "$qopci" copy --farm "$farm.bad" --manifest "$examples/trades.json" --csv "$bad" 2>/dev/null; then
  echo "a malformed CSV was accepted"; exit 1
fi
[[ ! -e "$farm.bad" ]] || { echo "a failed copy left a farm behind"; exit 1; }
echo ok
