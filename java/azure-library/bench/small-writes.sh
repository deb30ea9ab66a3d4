#!/bin/bash
# Small-write latency of two library jars side by side against one Azurite
# (in memory, on loopback): for each size, RUNS runs of each jar, alternating
# (the order swapped every other run), one JVM per run; prints the median
# over the runs of each run's median time per write.
#
# Usage: small-writes.sh BEFORE.jar AFTER.jar [RUNS]
# Azurite: AZURITE_BIN (azurite-blob or its npm prefix), default build/azurite.
set -euo pipefail
before=$(realpath "$1"); after=$(realpath "$2"); runs=${3:-8}
here=$(cd "$(dirname "$0")" && pwd)
bin=${AZURITE_BIN:-$here/../../../build/azurite}
[ -d "$bin" ] && bin=$bin/node_modules/.bin/azurite-blob
work=$(mktemp -d); trap 'kill $azurite 2>/dev/null; rm -rf "$work"' EXIT
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
key=$(head -c 64 /dev/urandom | base64 -w0)
(cd "$work" && AZURITE_ACCOUNTS="bench:$key" exec "$bin" --blobHost 127.0.0.1 --blobPort "$port" \
    --inMemoryPersistence --disableTelemetry --skipApiVersionCheck --silent >/dev/null 2>&1) &
azurite=$!
sleep 3
javac -d "$work" -cp "$after" "$here/SmallWrites.java"
conn="AccountName=bench;AccountKey=$key;BlobEndpoint=http://127.0.0.1:$port/bench;Container=smallwrites"
median() { sort -n | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }
printf "%-8s %-6s %-10s %-10s\n" size writes before after
for spec in 1024:500 65536:300 1048576:150; do
    size=${spec%%:*}; count=${spec##*:}
    : > "$work/b"; : > "$work/a"
    for ((r = 0; r < runs; ++r)); do
        if ((r % 2 == 0)); then order="b a"; else order="a b"; fi
        for which in $order; do
            jar=$before; [ "$which" = a ] && jar=$after
            java -cp "$jar:$work" SmallWrites "$conn" "$size" "$count" >> "$work/$which"
        done
    done
    printf "%-8s %-6s %-10s %-10s\n" "$size" "$runs x $count" "$(median < "$work/b") ms" "$(median < "$work/a") ms"
done
