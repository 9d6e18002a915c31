#!/usr/bin/env bash
# A copy that writes past the file size limit (ulimit -f) fails with a message naming the file
# and the system's reason, exit status 1, and leaves the farm at its previous commit, both
# when the columns are written by the queue's workers and on the calling thread.
set -euo pipefail
qopci=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
farm=$dir/farm
cat >"$dir/m.json" <<'JSON'
{"table": "t", "columns": [{"name": "x", "type": "bigint"}, {"name": "d", "type": "decimal(9,2)"}]}
JSON
"$qopci" copy --farm "$farm" --manifest "$dir/m.json" --generate 10 >/dev/null
for mode in --sync ""; do
  status=0
  (ulimit -f 1024 && exec "$qopci" copy --farm "$farm" --manifest "$dir/m.json" \
    --generate 1000000 $mode) >/dev/null 2>"$dir/err" || status=$?
  err=$(<"$dir/err")
  [[ $status == 1 ]] || { echo "copy $mode past the limit: exit status $status: $err"; exit 1; }
  grep -Eq "file \[ $farm/bat/[0-9/]+\.tail \].*File too large" <<<"$err" ||
    { echo "copy $mode: expected the file and 'File too large': $err"; exit 1; }
  out=$("$qopci" inspect --farm "$farm" --limit 0)
  grep -Eq 't\.x +[a-z]+ +10 ' <<<"$out" || { echo "copy $mode changed the farm: $out"; exit 1; }
done
echo ok
