#!/usr/bin/env bash
# The tool on the sample data through the real plugin: a copy, a second copy that appends,
# the values read back (decimals exactly), a third that replaces, and a bad CSV that leaves
# no farm behind; then the time-level sample: copied twice, its levels read back and
# verified.
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
ticks=$(dirname "$farm")/ticks
for _ in 1 2; do
  "$qopci" copy --farm "$ticks" --manifest "$examples/ticks_levels.json" --csv "$examples/ticks.csv" >/dev/null
done
out=$("$qopci" inspect --farm "$ticks" --rows --column ts --limit 1)
grep -q '^2012-12-31 22:15:00.093  2012123122  2012-01-01  2012-10-01  2012-12-01  2012-12-31$' <<<"$out" ||
  { echo "expected the levels of the first tick: $out"; exit 1; }
out=$("$qopci" inspect --farm "$ticks" --rows --all --column settled --format csv)
[[ $(grep -c '^2013-01-02 16:00:00,2013010216,2013-01-01,2013-01-01,2013-01-01,2013-01-02$' <<<"$out") == 2 ]] ||
  { echo "expected two settlements on 2 January: $out"; exit 1; }
# 15 hours; the nil row is not a dictionary entry.
out=$("$qopci" inspect --farm "$ticks" --column settled --limit 0)
grep -Eq 'ticks\.settled +timestamp levels dictionary +80 .*dictionary: 15 entries' <<<"$out" ||
  { echo "expected 80 settlements and their distinct hours once: $out"; exit 1; }
"$qopci" verify --farm "$ticks" >/dev/null || { echo "verify found faults in the levels"; exit 1; }
echo ok
